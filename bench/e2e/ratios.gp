# efhost's figures divided by OVS's and by the kernel's, one pair of bars per
# metric, from the ratios.dat that results.py writes. compare.sh sets
# `datafile`, `outfile` and `subtitle` with gnuplot -e.
# Above the line at 1 efhost moved more (or, for the RTT, took longer).

set terminal pngcairo size 1100,560 font "DejaVu Sans,11"
set output outfile
set title "efhost relative to Open vSwitch (userspace) and the Linux kernel VXLAN driver\n{/*0.8 ".subtitle."}"
set logscale y 10
# The range spans the ratios with room for the labels, and always 0.5 to 2.
stats datafile using 2 nooutput name "A"
stats datafile using 3 nooutput name "B"
lo = A_min < B_min ? A_min : B_min
hi = A_max > B_max ? A_max : B_max
set yrange [(lo < 0.5 ? lo : 0.5) / 2 : (hi > 2 ? hi : 2) * 2]
set ytics ("0.01" 0.01, "0.03" 0.03, "0.1" 0.1, "0.3" 0.3, "0.5" 0.5, "1" 1, "2" 2, "3" 3, "10" 10, "30" 30, "100" 100)
set grid ytics
set ylabel "efhost / other (median of repetitions)"
set style data histogram
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set key top right
set xtics nomirror
set arrow from graph 0, first 1 to graph 1, first 1 nohead lw 2 dt 2 lc rgb "#404040"
plot datafile using 2:xtic(1) title "efhost / OVS userspace" lc rgb "#3b73b9", \
     ''       using 3        title "efhost / kernel"        lc rgb "#e0833a", \
     ''       using ($0 - 1.0/6):2:(sprintf("%.2g", $2)) with labels offset 0,0.7 font ",9" notitle, \
     ''       using ($0 + 1.0/6):3:(sprintf("%.2g", $3)) with labels offset 0,0.7 font ",9" notitle
