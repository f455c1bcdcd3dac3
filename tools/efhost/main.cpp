// efhost: the forwarding process that loads the VXLAN module (being written).
#include <cstdio>

int main()
{
    std::fprintf(stderr, "efhost: not built yet\n");
    return 1;
}
