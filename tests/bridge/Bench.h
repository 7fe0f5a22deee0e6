#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>

#include <zorn/logger/logger.h>
#include <zorn/structure/module.h>

#include "tests/bridge/TestDevices.h"
#include "tests/host/Made.h"

namespace Harvane::RT::Modules::Daq {
class DaqController;
class DaqStructure;
}  // namespace Harvane::RT::Modules::Daq

namespace Harvane::RT::Modules::Daq::Test {

using Core::Testing::made;
using Texts = std::vector<std::string>;

// Levels of the host's log.
constexpr int warning = 3;
constexpr int error = 4;

// Keeps what the module's logger gets.
struct LogCapture : Core::ILogSink {
    LogCapture();
    ~LogCapture() override;
    void write(const Core::LogRecord& record) override;
    // Texts behind the place, of this level and since the last call.
    Texts take(int level = error);

    struct Entry {
        int level;
        std::string function;
        std::string place;  // "[function:line] "
        std::string text;
    };
    std::vector<Entry> entries;
};

// A host's data with the place for one module.
struct HostData {
    HostData();
    ~HostData();
    // What the next scan finds, in this order.
    static void plug(const std::vector<std::shared_ptr<Device>>& devices);
    // What the host does between initialize and start; the channels of these names are used.
    static void reserveMemory(DaqStructure& structure, const Texts& used);
    // The first calls to a module. What it registers for the time is held until the next configuration.
    Core::ErrCode add(Core::IModule& module, const Core::DataModulePtr& place) const;
    void configure(Core::IModule& module);
    void forgetProviders();
    Core::ChannelPtr<> channel(const std::string& name) const;
    Core::ChannelFolderPtr folder(const std::string& name) const;

    Core::DataPtr data;
    Core::DataModulePtr dataModule;
    Core::AcquisitionSyncPtr sync;
    LogCapture log;
    Core::ObjectPtr<Core::IClockProvider> clock;  // from configure on, as those below
    Core::ObjectPtr<Core::ILoopProvider> loop;
    Core::ObjectPtr<Core::IAbsTimeProvider> absTime;
};

// With a module's bridge in it, without the module object.
struct Bench : HostData {
    Bench();
    ~Bench();
    // Makes the controller's tree of these devices.
    void scan(const std::vector<std::shared_ptr<Device>>& devices);
    // And mirrors it. The errors that were logged meanwhile are in buildErrors.
    void build(const std::vector<std::shared_ptr<Device>>& devices);
    void reserve(const Texts& used);

    std::unique_ptr<DaqController> controller;
    std::unique_ptr<DaqStructure> structure;
    Texts buildErrors;
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

// What a hidden function of a channel counts.
inline int64_t countOf(const Core::ChannelPtr<>& channel, const char* name) {
    return Core::fromValue<int64_t>(Core::executeFunc(functionOf(channel, name), nullptr));
}

template <class I>
void setRate(const Core::PropertyObjectPtr<I>& object, int64_t value) {
    object.setPropertyValue("SampleRate", Core::Ratio{value, 1});
}

// What a getter gives; an output that it leaves alone doesn't pass for a good one.
template <class T, class Object, class I>
T ask(Object* object, Core::ErrCode (I::*getter)(T*)) {
    T value;
    std::ranges::fill(std::as_writable_bytes(std::span(&value, 1)), std::byte{0x55});
    Core::checkErrorInfo((object->*getter)(&value));
    return value;
}

Core::BasePtr rates(int first, int second);
Core::BasePtr rate(int value);
Core::BasePtr listOf(const std::vector<int>& numbers);
// "[1, [14]]"
std::string textOf(const Core::BasePtr& value);

}  // namespace Harvane::RT::Modules::Daq::Test
