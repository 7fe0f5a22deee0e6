#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "modules/daq/bridge/DaqRTOperation.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/CANDevice.h"
#include "tests/bridge/ModuleBench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;
using Harvane::RT::Core::Testing::failure;

namespace {

// Four analog outputs, -10 V to 10 V, of each kind of sample.
class TestAO : public SubDevice {
public:
    TestAO() {
        add("Out double", 64, true);
        add("Out 16", 16, false);
        add("Out 32", 32, false);
        add("Out float", 32, true);
    }
    std::string getDisplayName() const override { return "Analog outputs"; }

private:
    void add(const char* name, int resolution, bool isFloat) {
        auto output = std::make_shared<AOChannel>(static_cast<int>(channels.size()));
        output->name = name;
        output->resolution = resolution;
        output->isFloat = isFloat;
        output->initialize();
        channels.push_back(output);
    }
};

// Two ports, of which nothing but the channels is there.
class TestCan : public CANDevice {
public:
    TestCan() {
        hasOutputChannels = true;
        setMaxChannelsCount(4);
    }
};

// With sources: "Raw 1" carries `value` as its newest sample, one more a cycle while `fresh`.
class RoutedDevice : public TestDevice {
public:
    std::shared_ptr<AIDevice> createAIDevice() override {
        auto inputs = TestDevice::createAIDevice();
        ai->onAcquire = [this] {
            Channel& source = *ai->channels[0];
            if (fresh && source.active) {
                *static_cast<short*>(source.buffer->getSample(source.buffer->getPosition())) = value;
                source.incSamplePosition(1);
            }
        };
        return inputs;
    }
    std::shared_ptr<SubDevice> createAODevice() override { return ao = std::make_shared<TestAO>(); }
    std::shared_ptr<CANDevice> createCANDevice() override { return can = std::make_shared<TestCan>(); }

    std::shared_ptr<TestAO> ao;
    std::shared_ptr<TestCan> can;
    short value = 0;
    bool fresh = true;
};

class RoutesTest : public testing::Test, protected ModuleBench {
protected:
    RoutesTest() { device->ai.reset(); }

    void add() {
        addDevice(device);
        data.setPropertyValue("OperationMode", 2);
    }
    void start(const Texts& used = {"Raw 1", "Out 16", "Out 32", "Out float", "Out double", "CAN Port 1 Output",
                                    "CAN Port 2 Output"}) {
        ModuleBench::start(used);
    }

    std::string idOf(const char* name) const { return channel(name).getNodeId().toStdString(); }
    GenericPropertyObjectPtr route(const char* name) const {
        return channel(name).getPropertyValue("RTC").asPtr<IPropertyObject>();
    }
    static BasePtr message(int64_t id, const std::string& source) {
        return asBase(ListPtr::create({toValue(id), toValue(source)}));
    }
    void routeCan(const char* input, const std::vector<BasePtr>& messages, int outputRate) const {
        const auto list = ListPtr::create();
        for (const auto& item : messages) {
            list.pushBack(item);
        }
        route(input).setPropertyValue("Messages", list);
        route(input).setPropertyValue("OutputRate", outputRate);
        route(input).setPropertyValue("Enabled", true);
    }
    void routeAO(const char* output, const std::string& source, int scaling) const {
        route(output).setPropertyValue("ChIndex", source);
        route(output).setPropertyValue("ScalingType", scaling);
        route(output).setPropertyValue("Enabled", true);
    }
    long samplesOf(const char* name) const { return channel(name).getSamplesAcquired(); }
    // The newest message, as "1FF 4 1.5".
    std::string newestMessage(const char* name) const {
        const auto buffer = channel(name).getBuffer();
        CanMessage sample;
        std::memcpy(&sample, buffer.getSample((buffer.getPosition() + buffer.getCapacity() - 1) % buffer.getCapacity()),
                    sizeof sample);
        float number = 0.0F;
        std::memcpy(&number, sample.data, sizeof number);
        char text[64];
        std::snprintf(text, sizeof text, "%X %d %g %d%d", sample.id, sample.dataLength, static_cast<double>(number),
                      sample.reserved1, sample.reserved2);
        return text;
    }
    double newestRaw(const char* name) const {
        const auto buffer = channel(name).getBuffer();
        return buffer.getSampleInDouble((buffer.getPosition() + buffer.getCapacity() - 1) % buffer.getCapacity());
    }

    std::shared_ptr<RoutedDevice> device = std::make_shared<RoutedDevice>();
};

// Messages in 30 cycles at 100 cycles a second, or as many as a loop device makes.
TEST_F(RoutesTest, DividersOfCanMessages) {
    device->loop = std::make_shared<TestLoop>();
    device->loop->minCycleRate = 1;
    add();
    device->value = 3;
    struct {
        int outputRate;
        int cycleRate;
        long sent;
    } const rows[] = {{10, 100, 3},  {100, 100, 30}, {200, 100, 30}, {0, 100, 30}, {-5, 100, 30},
                      {30, 100, 10}, {51, 100, 30},  {10, 50, 6},    {10, 0, 30},  {1, 31, 0}};
    for (const auto& row : rows) {
        device->loop->cycleRate = row.cycleRate;
        routeCan("CAN Port 1 Input", {message(0x1FF, idOf("Raw 1"))}, row.outputRate);
        start();
        cycles(30);
        EXPECT_EQ(samplesOf("CAN Port 1 Output"), row.sent) << row.outputRate << " " << row.cycleRate;
        // What a cycle takes in, and a message made of it, goes to the device in that cycle.
        EXPECT_EQ(device->can->channels[1]->samplesAcquired.get(), static_cast<uint64_t>(row.sent));
        stop();
    }
    device->loop.reset();
    EXPECT_TRUE(log.take().empty());
}

TEST_F(RoutesTest, CanMessagesCarryTheNewestValueOnce) {
    add();
    device->ai->channels[0]->scale = 0.5;
    routeCan("CAN Port 1 Input",
             {message(0x1FFFFFFF, idOf("Raw 1")), message(7, "Data/nobody"), message(0x20000000, idOf("Raw 1")),
              message(-1, idOf("Raw 1")), message(8, idOf("CAN Port 2 Input")), message(5, idOf("Raw 1"))},
             100);
    routeCan("CAN Port 2 Input", {message(9, idOf("Byte"))}, 100);
    start();
    // Once, though a start reads the routes anew.
    const std::string of = "The route of channel \"CAN Port 1 Input\": ";
    EXPECT_EQ(log.take(warning),
              (Texts{of + "there is no channel \"Data/nobody\"", of + "536870912 is no identifier of a CAN message",
                     of + "-1 is no identifier of a CAN message",
                     of + "the samples of channel \"" + idOf("CAN Port 2 Input") + "\" are no numbers",
                     "The route of channel \"CAN Port 2 Input\": its source \"" + idOf("Byte") + "\" is not in use"}));
    device->fresh = false;
    cycles(2);
    EXPECT_EQ(samplesOf("CAN Port 1 Output"), 0);
    device->fresh = true;
    device->value = -3;
    cycles(1);
    EXPECT_EQ(samplesOf("CAN Port 1 Output"), 2);  // of two identifiers, in the order of the list
    EXPECT_EQ(newestMessage("CAN Port 1 Output"), "5 4 -1.5 00");
    device->fresh = false;
    cycles(5);
    EXPECT_EQ(samplesOf("CAN Port 1 Output"), 2);
    EXPECT_EQ(samplesOf("CAN Port 2 Output"), 0);  // its source has never had a sample
    stop();

    // The next run begins anew; in the other operation mode nothing goes out.
    device->fresh = true;
    start();
    cycles(1);
    EXPECT_EQ(samplesOf("CAN Port 1 Output"), 2);
    stop();
    data.setPropertyValue("OperationMode", 1);
    start();
    cycles(3);
    EXPECT_EQ(samplesOf("CAN Port 1 Output"), 0);
    stop();
}

// An object of the older class, as a setup may have stored it, in the place of the module's own.
TEST_F(RoutesTest, StoredObjectsTakeTheirPlace) {
    add();
    device->value = 2;
    checkErrorInfo(module->initialize());
    IPropertyObject* raw = nullptr;
    checkErrorInfo(createPropertyObject(&raw, nullptr, StringPtr("RTC_CAN").get()));
    const GenericPropertyObjectPtr stored(ObjectPtr<IPropertyObject>::take(raw));
    channel("CAN Port 2 Input").setPropertyValue("RTC", stored);
    stored.setPropertyValue("Messages", ListPtr::create({message(0x10, idOf("Raw 1"))}));
    stored.setPropertyValue("Enabled", true);
    start();
    cycles(4);
    EXPECT_EQ(samplesOf("CAN Port 2 Output"), 4);
    EXPECT_EQ(newestMessage("CAN Port 2 Output"), "10 4 2 00");
    stop();
    // What is set after the preparation counts from the next start on.
    checkErrorInfo(module->initialize());
    reserveMemory(impl->daqStructure, {"Raw 1", "CAN Port 2 Output"});
    stored.setPropertyValue("Enabled", false);
    checkErrorInfo(module->start());
    cycles(4);
    EXPECT_EQ(samplesOf("CAN Port 2 Output"), 0);
    stop();
    // And one that is nonsense is refused, with its place, and doesn't stand in the way of the next.
    stored.setPropertyValue("Enabled", true);
    stored.setPropertyValue("Messages", ListPtr::create({toValue("0x10 from Raw 1")}));
    EXPECT_NE(failure([&] { start(); }).find("The route of channel \"CAN Port 2 Input\""), std::string::npos);
    stored.setPropertyValue("Messages", ListPtr::create({message(0x10, idOf("Raw 1"))}));
    start();
    cycles(1);
    EXPECT_EQ(samplesOf("CAN Port 2 Output"), 1);
    stop();
    channel("CAN Port 2 Input").clearProperty("RTC");
    start();
    stop();
}

TEST_F(RoutesTest, AnalogOutputsOfEachType) {
    add();
    Channel& source = *device->ai->channels[0];
    const double infinite = std::numeric_limits<double>::infinity();
    struct Row {
        const char* what;
        int scaling;
        double min;
        double max;
        double factor;  // of the source: its newest sample is 1 times that
        double out16;   // raw
        double out32;
        double outFloat;
    } const rows[] = {
        // 20 V over 2^16 and over 2^32 steps
        {"direct", 0, 0.0, 5.0, 1.0, 3276.0, 214748364.0, 1.0},
        {"toward zero", 0, 0.0, 5.0, -1.0, -3276.0, -214748364.0, -1.0},
        {"without saturation", 0, 0.0, 5.0, 15.0, -16384.0, -1073741824.0, 15.0},
        {"from range", 1, 0.0, 5.0, 3.0, 6553.0, 429496729.0, 2.0},
        {"from a range that doesn't begin at 0", 1, -1.0, 1.0, 0.5, 16384.0, 1073741824.0, 5.0},
        {"from an empty range", 1, 0.0, 0.0, 1.0, 0.0, 0.0, std::nan("")},
        {"from an empty range beside 0", 1, -2.0, -2.0, 1.0, 0.0, 0.0, infinite},
    };
    device->value = 1;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        for (const char* name : {"Out 16", "Out 32", "Out float"}) {
            routeAO(name, idOf("Raw 1"), row.scaling);
        }
        checkErrorInfo(module->initialize());
        // What an amplifier's range does between two steps.
        source.minValue = row.min;
        source.maxValue = row.max;
        source.scale = row.factor;
        reserveMemory(impl->daqStructure, {"Raw 1", "Out 16", "Out 32", "Out float"});
        checkErrorInfo(module->start());
        device->fresh = false;
        cycles(2);
        EXPECT_EQ(samplesOf("Out 16"), 0);
        device->fresh = true;
        cycles(1);
        device->fresh = false;
        cycles(2);
        EXPECT_EQ(samplesOf("Out 16"), 3);  // the same again in each cycle
        EXPECT_EQ(device->ao->channels[1]->samplesAcquired.get(), 3u);
        EXPECT_EQ(newestRaw("Out 16"), row.out16);
        EXPECT_EQ(newestRaw("Out 32"), row.out32);
        const double outFloat = newestRaw("Out float");
        EXPECT_TRUE(std::isnan(row.outFloat) ? std::isnan(outFloat) : outFloat == row.outFloat) << outFloat;
        device->fresh = true;
        stop();
    }
    EXPECT_TRUE(log.take().empty());
}

TEST_F(RoutesTest, OneThatFailsHoldsUpNoOther) {
    add();
    device->value = 1;
    routeAO("Out double", idOf("Raw 1"), 0);
    routeAO("Out 16", "", 0);
    routeAO("Out 32", idOf("Raw 1"), 0);
    routeCan("CAN Port 1 Input", {message(1, idOf("Raw 1"))}, 100);
    start({"Raw 1", "Out double", "Out 32"});
    EXPECT_EQ(
        log.take(warning),
        (Texts{"The route of channel \"CAN Port 1 Input\": the output channel is not in use, and nothing will be sent",
               "The route of channel \"Out 16\": there is no channel \"\""}));
    cycles(1);
    EXPECT_EQ(log.take(), Texts{"Exception in Daq::processData: unsupported type\n"});
    EXPECT_EQ(samplesOf("Out 32"), 1);
    EXPECT_EQ(samplesOf("Out double"), 0);
    EXPECT_EQ(samplesOf("CAN Port 1 Output"), 1);
    stop();
}

}  // namespace
