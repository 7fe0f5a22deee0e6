#pragma once

#include <stdexcept>
#include <string>

namespace Harvane::RT::Modules::Daq {

// Failures of the device tree. They carry a text and no error code: what crosses to the host is translated elsewhere.
class DaqException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Samples have been, or would be, overwritten before somebody read them.
class DataLostException : public DaqException {
public:
    DataLostException() : DaqException("Data lost") {}
    explicit DataLostException(const std::string& cause) : DaqException("Data lost: " + cause) {}
};

// A type that doesn't fit: an unknown class, a sample of another size than the buffer's, an impossible resolution.
class InvalidTypeException : public DaqException {
public:
    InvalidTypeException() : DaqException("Invalid type") {}
};

// A sample for a channel that takes no part in the acquisition.
class NotActiveChannelException : public DaqException {
public:
    NotActiveChannelException() : DaqException("Not active channel") {}
    explicit NotActiveChannelException(const std::string& cause) : DaqException("Not active channel: " + cause) {}
};

// An operation that this kind of object hasn't got.
class InvalidCallException : public DaqException {
public:
    InvalidCallException() : DaqException("Invalide call") {}
};

// A time stamp that is no number.
class InvalidTimestampException : public DaqException {
public:
    InvalidTimestampException() : DaqException("Invalid timestamp") {}
};

// A text that is no calendar time.
class BadTimeFormatException : public DaqException {
public:
    BadTimeFormatException() : DaqException("Bad time format") {}
};

// Thrown by the read function of a receiver thread when nothing came in time.
class TimeoutException : public DaqException {
public:
    TimeoutException() : DaqException("Timeout") {}
};

}  // namespace Harvane::RT::Modules::Daq
