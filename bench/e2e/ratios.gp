# efhost's figures divided by each other system's, a cluster of bars per
# metric, from the ratios.dat that results.py writes (one column per other
# system, in the order named by `series`). compare.sh sets `datafile`,
# `outfile`, `subtitle`, `series` ("ovs kernel", "ovs" or "kernel") and the
# smallest and largest ratio `lo` and `hi` with gnuplot -e.
# Above the line at 1 efhost moved more (or, for the RTT, took longer).

set terminal pngcairo size 1400,600 font "DejaVu Sans,11"
set output outfile
set title "efhost relative to Open vSwitch (userspace datapath) and the Linux kernel VXLAN driver\n{/*0.8 ".subtitle."}"
# The range spans the ratios with room for the labels, and always 0.5 to 2.
set logscale y 10
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
set bmargin 4
set arrow from graph 0, first 1 to graph 1, first 1 nohead lw 2 dt 2 lc rgb "#404040"

n = words(series)
title_of(s) = s eq "ovs" ? "efhost / OVS userspace" : "efhost / kernel"
colour_of(s) = s eq "ovs" ? 0x3b73b9 : 0xe0833a
# Centre of bar i (1..n) of the cluster at x: the clustered style gives each
# cluster n bars and one bar's width of gap.
bar_x(x, i) = x + (i - (n + 1) / 2.0) / (n + 1)

plot for [i = 1:n] datafile using (column(i + 1)):xtic(1) title title_of(word(series, i)) \
         lc rgb colour_of(word(series, i)), \
     for [i = 1:n] '' using (bar_x($0, i)):(column(i + 1)):(sprintf("%.2g", column(i + 1))) \
         with labels offset 0,0.7 font ",9" notitle
