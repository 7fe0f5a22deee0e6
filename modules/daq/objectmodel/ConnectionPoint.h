#pragma once

#include <string>

#include "modules/daq/objectmodel/DaqObject.h"

namespace Harvane::RT::Modules::Daq {

// What a device stands on: commands and data of one place of a port. Lengths are in bytes, time-outs in ms.
class ConnectionPoint : public DaqObject {
public:
    explicit ConnectionPoint(const std::string& name);

    virtual void initialize();
    virtual void connect();
    virtual void disconnect();
    virtual void connectData();
    virtual void disconnectData();

    // answerLength: room on entry, length of the answer on return.
    virtual void sendCommand(int command, const unsigned char* data, unsigned long length, unsigned char* answer,
                             unsigned long& answerLength, int timeout) = 0;
    // A command without an answer: the long form with a null answer and the length 0.
    virtual void sendCommand(int command, const unsigned char* data, unsigned long length, int timeout);
    // Bytes moved; (unsigned long)-1 where there is no data path.
    virtual unsigned long readData(int id, unsigned char* data, unsigned long length, int timeout) = 0;
    virtual unsigned long writeData(int id, const unsigned char* data, unsigned long length, int timeout) = 0;

    std::string name;
    bool connected = false;
    bool dataConnected = false;
    int index = 0;  // Place among the port's connection points.
};

}  // namespace Harvane::RT::Modules::Daq
