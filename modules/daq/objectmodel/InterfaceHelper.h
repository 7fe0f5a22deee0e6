#pragma once

#include <string>
#include <vector>

namespace Harvane::RT::Modules::Daq {

// Describes a family of ports, so that one set of generic classes serves any family. The identifier of the
// connection point stands in front of the arguments of ConnectionPoint's operations of the same names.
class InterfaceHelper {
public:
    virtual ~InterfaceHelper() = default;

    virtual std::string getInterfaceName() const = 0;
    virtual std::vector<std::string> enumIDs() const = 0;
    virtual void sendCommand(const std::string& id, int command, const unsigned char* data, unsigned long length,
                             unsigned char* answer, unsigned long& answerLength, int timeout);
    virtual unsigned long readData(const std::string& id, int dataId, unsigned char* data, unsigned long length,
                                   int timeout);
    virtual unsigned long writeData(const std::string& id, int dataId, const unsigned char* data, unsigned long length,
                                    int timeout);
};

}  // namespace Harvane::RT::Modules::Daq
