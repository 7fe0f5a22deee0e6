#pragma once

#include <memory>
#include <string>

#include "modules/daq/objectmodel/ConnectionPoint.h"

namespace Harvane::RT::Modules::Daq {

// Connection point of a helper's family: everything is forwarded with the connection point's name in front.
template <class Helper>
class GenericConnectionPoint : public ConnectionPoint {
public:
    GenericConnectionPoint(const std::string& name, const std::shared_ptr<Helper>& helper)
        : ConnectionPoint(name), helper_(helper) {}

    using ConnectionPoint::sendCommand;
    void sendCommand(int command, const unsigned char* data, unsigned long length, unsigned char* answer,
                     unsigned long& answerLength, int timeout) override {
        helper_->sendCommand(name, command, data, length, answer, answerLength, timeout);
    }
    unsigned long readData(int id, unsigned char* data, unsigned long length, int timeout) override {
        return helper_->readData(name, id, data, length, timeout);
    }
    unsigned long writeData(int id, const unsigned char* data, unsigned long length, int timeout) override {
        return helper_->writeData(name, id, data, length, timeout);
    }

private:
    std::shared_ptr<Helper> helper_;
};

}  // namespace Harvane::RT::Modules::Daq
