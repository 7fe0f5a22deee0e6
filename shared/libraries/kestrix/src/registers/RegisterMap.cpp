#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

template class RegisterBlock<unsigned char>;
template class RegisterBlock<unsigned short>;
template class RegisterBlock<unsigned int>;

}  // namespace Harvane::Shared::Kestrix
