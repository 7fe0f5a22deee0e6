#include <zorn/structure/node.h>

namespace Harvane::RT::Core {

ZORN_FUNCTION void zornCoreStructureGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    if (major != nullptr) {
        *major = 1;
    }
    if (minor != nullptr) {
        *minor = 2;
    }
    if (patch != nullptr) {
        *patch = 0;
    }
}

}  // namespace Harvane::RT::Core
