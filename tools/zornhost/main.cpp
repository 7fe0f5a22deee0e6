#include "tools/zornhost/Commands.h"

int main(int argc, char** argv) {
    return zornhost::run(argc, argv);
}
