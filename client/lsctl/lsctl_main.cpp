#include "lsctl.h"

int main(int argc, char **argv) {
    return lsctl_run(argc, argv);
}
