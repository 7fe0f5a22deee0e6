#include "modules/daq/objectmodel/CntChannel.h"

namespace Harvane::RT::Modules::Daq {

CntChannel::CntChannel(int number) : Channel(number) {
    sampleType = SampleType::Sync;
}

void CntChannel::initialize() {
    createChannelBuffer<int>();
}

bool CntChannel::hasCntSettings() const {
    return name == "Count";
}

}  // namespace Harvane::RT::Modules::Daq
