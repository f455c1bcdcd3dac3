# The Linux kernel's VXLAN driver as the VTEP under test, sourced by
# compare.sh: the same bridge + VXLAN device as the far side, mirrored.

kernel_up() {
    kernel_vtep "$NS_VTEP" "$DEV_ACC" "$UL_LOCAL" "$UL_FAR"
}

kernel_alive() { return 0; }

# Nothing runs outside the namespace, which goes with the topology.
kernel_down() { return 0; }
