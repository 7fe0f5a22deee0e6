// A module library for the tests of the module manager. It tells every call to the logger "FakeModule", which a test
// reads, and takes its orders from properties of the data object:
//   "FailStep"     text: the lifecycle call of that name fails with "broken on demand"; "initialize without words"
//                  fails with the code alone
//   "BalanceAsks"  int: how many times "GetSensorBalanceStatus" answers true
// Compile definitions make the variants: FAKE_WRONG_VERSION, FAKE_FAILING_INIT, FAKE_NO_CHECK, FAKE_NO_DRIVER.

#include <zorn/logger/logger.h>
#include <zorn/objects/property_object_impl.h>
#include <zorn/structure/module.h>

#include "../Made.h"

using namespace Harvane::RT::Core;
using Testing::made;

namespace {

void tell(const std::string& text) {
    zornLogMessageWithSource("FakeModule", 0, __FILE__, __LINE__, "tell", text.c_str());
}

constexpr int SamplesPerCycle = 10;

class FakeModule final : public GenericPropertyObjectImpl<IPropertyObject, IModule, IClockProvider> {
public:
    FakeModule() { tell("constructed"); }
    ~FakeModule() override { tell("destroyed"); }

    ErrCode add(IModuleAddParams* parameters) override {
        return wrapHandler([&] {
            const ModuleAddParamsPtr given(parameters);
            data_ = given.getData();
            dataModule_ = given.getDataModule();
            sync_ = given.getAcquisitionSync();
            const auto root = dataModule_.getRootFolder();
            const auto inner = ChannelFolderPtr::create("inner");
            root.addChild(inner);
            input_ = made<IChannel>(createSyncChannel, StringPtr("0").get(), 1, 0.0);
            inner.addChild(input_);
            event_ = made<IChannel>(createAsyncChannel, StringPtr("1").get(), 0, 0.0);
            root.addChild(event_);
            for (const auto& channel : {input_, event_}) {
                channel.setUsed(true);
                channel.setSampleRate({1000, 1});
            }
            // Code of this library that only the tree holds.
            input_.setPropertyValue("GetSensorBalanceStatus", makeFunc([this](const BasePtr&, BasePtr& result) {
                                        tell("balance asked");
                                        result = toValue(balanceAsks_-- > 0);
                                        return Errors::Success;
                                    }));
            checkErrorInfo(input_.getOnPropertyValueChanged()->addHandler(
                makeHandler([](const BasePtr&, const ObjectPtr<IEventArgs>&) {}).get()));
            balanceAsks_ = data_.isPropertySet("BalanceAsks") ? data_.getPropertyValue<int>("BalanceAsks") : 0;
            step("add");
        });
    }
    ErrCode remove() override { return run("remove"); }
    ErrCode configure(IModuleConfig* config) override {
        return wrapHandler([&] {
            checkErrorInfo(config->setClockProvider(this));
            step("configure");
        });
    }
    ErrCode initialize() override { return withoutWords_ ? Errors::InvalidState : run("initialize"); }
    ErrCode start() override {
        return wrapHandler([&] {
            tell("capacity " + std::to_string(input_.getBuffer().getCapacity()) + " " +
                 std::to_string(event_.getBuffer().getCapacity()));
            step("start");
        });
    }
    ErrCode postStart() override { return run("postStart"); }
    ErrCode preStop() override { return run("preStop"); }
    ErrCode stop() override { return run("stop"); }
    ErrCode finalize() override { return run("finalize"); }

    ErrCode processData() override {
        if (failInCycle_) {
            return makeError(Errors::GeneralError, "broken on demand", self());
        }
        const ErrCode code = input_->incrementSamplePosition(SamplesPerCycle);
        const double sample = 1.5;
        return failed(code) ? code : event_.asPtr<IAsyncChannel>()->addSample(7, &sample);
    }
    ErrCode getTaskList(IList** tasks) override { return *tasks = nullptr, Errors::Success; }
    ErrCode getInputs(IInputGroups** inputs) override { return *inputs = nullptr, Errors::Success; }
    ErrCode getConfigurationMode(ConfigurationMode* mode) override { return handOut(3, mode); }

    ErrCode getUnit(IString** unit) override { return createString(unit, "s"); }
    ErrCode getClockBase(IRatio** base) override { return createRatio(base, 1, 1000000000); }
    ErrCode getResolution(IRatio** resolution) override { return createRatio(resolution, 1, 1000000000); }
    ErrCode getCurrentClock(long* ticks) override { return *ticks = 7, Errors::Success; }
    ErrCode getAcquiredClock(long* ticks) override { return *ticks = 6, Errors::Success; }

private:
    ErrCode run(const char* name) {
        return wrapHandler([&] { step(name); });
    }
    // The lock answers its holder with an error: so it tells whether this call was made under it.
    void step(const std::string& name) {
        const bool locked = failed(sync_->lock());
        if (!locked) {
            sync_.unlock();
        }
        zornClearErrorInfo();
        tell(name + (locked ? " (locked)" : ""));
        std::string wanted;
        if (data_.isPropertySet("FailStep")) {
            wanted = data_.getPropertyValue<std::string>("FailStep");
        }
        failInCycle_ = wanted == "processData";
        withoutWords_ = wanted == "initialize without words";
        if (wanted == name) {
            throw InvalidStateException("broken on demand");
        }
    }

    DataPtr data_;
    DataModulePtr dataModule_;
    AcquisitionSyncPtr sync_;
    ChannelPtr<> input_;
    ChannelPtr<> event_;
    int balanceAsks_ = 0;
    bool failInCycle_ = false;
    bool withoutWords_ = false;
};

struct FakeFactory final : ObjectImpl<IModuleFactory> {
    ErrCode getName(IString** name) override { return createString(name, "Fake Module"); }
    ErrCode createInstance(IString** name, IModule** module) override {
        *module = new FakeModule;
        return createString(name, "Fake Module");
    }
};

struct FakeDriver final : ObjectImpl<IModuleDriver> {
    ErrCode getName(IString** name) override { return createString(name, "Fake Driver"); }
    ErrCode enumerateModuleFactories(IList** factories) override {
        *factories = ListPtr::create({BasePtr::take(new FakeFactory)}).detach();
        return Errors::Success;
    }
    ErrCode getVersionInfo(IVersionInfo** version) override { return createVersionInfo(version, 3, 1, 4); }
};

ErrCode makeThing(ISerializedObject*, IBaseObject** object) {
    return handOut(toValue("a thing"), object);
}

[[maybe_unused]] const ErrCode thingRegistered = zornRegisterSerializerFactory("FakeThing", &makeThing);

}  // namespace

#ifndef FAKE_NO_CHECK
ZORN_FUNCTION ErrCode zornCheckDependencies([[maybe_unused]] IString** message) {
#ifdef FAKE_WRONG_VERSION
    createString(message, "Incompatible CoreTypes v2.0.0 (expected compatible with v1.1.0)");
    return Errors::IncompatibleVersion;
#else
    return Errors::Success;
#endif
}
#endif

ZORN_FUNCTION ErrCode zornInitDaqModuleLibrary() {
    tell("library initialized");
#ifdef FAKE_FAILING_INIT
    return makeError(Errors::NotFound, "the logger is missing");
#else
    return Errors::Success;
#endif
}

#ifndef FAKE_NO_DRIVER
ZORN_FUNCTION ErrCode createDaqModuleDriver(IModuleDriver** driver) {
    return createObject<FakeDriver>(driver);
}
#endif

ZORN_FUNCTION ErrCode zornCanUnload(bool* canUnload) {
    return handOut(zornSharedLibObjectCount.load() == 0, canUnload);
}

ZORN_FUNCTION ErrCode zornGetObjectCount(size_t* count) {
    return handOut(zornSharedLibObjectCount.load(), count);
}
