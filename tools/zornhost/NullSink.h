#pragma once

#include "tools/zornhost/RecordingSink.h"

namespace zornhost {

// Takes everything and keeps nothing.
class NullSink : public RecordingSink {
public:
    bool keeps() const override { return false; }
    size_t addChannel(const ChannelInfo&) override { return channels_++; }
    void describeChannel(size_t, const ChannelInfo&) override {}
    void setAttribute(const std::string&, const std::string&) override {}
    void setStartTime(int64_t) override {}
    void write(size_t, uint64_t, const void*, size_t) override {}
    void putGap(uint64_t, const Gap&) override {}
    size_t addCanTable(const ChannelInfo&, const std::string&) override { return canTables_++; }
    void addCanRows(size_t, const CanRow*, size_t) override {}
    size_t addValueTable(const ChannelInfo&) override { return valueTables_++; }
    void addValueRows(size_t, const void*, size_t) override {}
    void addClockChange(const ClockChange&, double) override {}
    void setClock(const std::string&, Lock, Lock) override {}
    void flush() override {}
    void close(const std::string&, bool) override {}

private:
    size_t channels_ = 0;
    size_t canTables_ = 0;
    size_t valueTables_ = 0;
};

}  // namespace zornhost
