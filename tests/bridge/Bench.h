#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <zorn/logger/logger.h>
#include <zorn/structure/module.h>

#include "tests/bridge/TestDevices.h"

namespace Harvane::RT::Modules::Daq {
class DaqController;
class DaqStructure;
}

namespace Harvane::RT::Modules::Daq::Test {

// Keeps what the module's logger gets.
class LogCapture : public Core::ILogSink {
public:
    LogCapture();
    ~LogCapture() override;
    void write(const Core::LogRecord& record) override;
    // Texts behind the place, of this host level and since the last call.
    std::vector<std::string> take(int level);

    struct Entry {
        int level;
        std::string function;
        std::string place;  // "[function:line] "
        std::string text;
    };
    std::vector<Entry> entries;
};

// A host's data with the place for one module.
class HostTree {
public:
    HostTree();
    ~HostTree();
    // What the next scan finds, in this order.
    static void plug(const std::vector<std::shared_ptr<Device>>& devices);
    // What the host does between initialize and start; the channels of these names are used.
    static void reserveMemory(DaqStructure& structure, const std::vector<std::string>& used);
    Core::ChannelPtr<> channel(const std::string& name) const;
    Core::ChannelFolderPtr folder(const std::string& name) const;

    Core::DataPtr data;
    Core::DataModulePtr dataModule;
    Core::AcquisitionSyncPtr sync;
    LogCapture log;
};

// With a module's bridge in it, without the module object.
class Bench : public HostTree {
public:
    Bench();
    ~Bench();
    // Makes the controller's tree of these devices.
    void scan(const std::vector<std::shared_ptr<Device>>& devices);
    // And mirrors it. The errors that were logged meanwhile are in buildErrors.
    void build(const std::vector<std::shared_ptr<Device>>& devices);
    void reserve(const std::vector<std::string>& used);

    std::unique_ptr<DaqController> controller;
    std::unique_ptr<DaqStructure> structure;
    std::vector<std::string> buildErrors;
};

template <class I>
int rateOf(const Core::PropertyObjectPtr<I>& object, const char* name = "SampleRate") {
    const auto ratio = object.template getPropertyValue<Core::Ratio>(name);
    EXPECT_EQ(ratio.denominator, 1) << name;
    return static_cast<int>(ratio.numerator);
}

template <class I>
Core::ObjectPtr<Core::IFuncObject> functionOf(const Core::PropertyObjectPtr<I>& object, const char* name) {
    return object.getPropertyValue(name).template asPtr<Core::IFuncObject>();
}

Core::BasePtr rates(int first, int second);
Core::BasePtr rate(int value);

}
