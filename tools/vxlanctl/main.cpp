// vxlanctl: the control-process side of the VXLAN module (being written).
#include <cstdio>

int main()
{
    std::fprintf(stderr, "vxlanctl: not built yet\n");
    return 1;
}
