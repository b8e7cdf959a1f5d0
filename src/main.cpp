#include <cstdio>

int main() {
    fputs("usage: -i <ini file>\n", stderr);
    return 1;
}
