#include "commandLineSrv.h"

int main(int argc, char** argv) {
    return vrecMain(argc, argv);
}
