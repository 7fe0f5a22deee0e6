#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/host/corestructure/Helpers.h"

using namespace Harvane::RT::Core;

namespace {

struct Tree {
    DataPtr data = made<IData>([](IData** r) { return createData(r, StringPtr("data").get(), 20); });
    DataModulePtr module =
        made<IDataModule>([](IDataModule** r) { return createDataModule(r, StringPtr("daq").get()); });
    Tree() { checkErrorInfo(data->addDataModule(module.get())); }
};

class CountingClock final : public ObjectImpl<IClockProvider> {
public:
    explicit CountingClock(bool& alive) : alive_(alive) { alive_ = true; }
    ~CountingClock() override { alive_ = false; }
    ErrCode getUnit(IString** unit) override { return createString(unit, "s"); }
    ErrCode getClockBase(IRatio** base) override { return createRatio(base, 1, 1000000000); }
    ErrCode getResolution(IRatio** resolution) override { return createRatio(resolution, 1, 1000000000); }
    ErrCode getCurrentClock(long* ticks) override {
        *ticks = 42;
        return Errors::Success;
    }
    ErrCode getAcquiredClock(long* ticks) override {
        *ticks = 41;
        return Errors::Success;
    }

private:
    bool& alive_;
};

}  // namespace

TEST(Tree, NodeIdsAreUniqueAndTellThePlace) {
    Tree tree;
    const auto root = tree.module.getRootFolder();
    EXPECT_EQ(root.getNodeId(), "data/daq/channels");

    // Identifiers repeat (channel numbers do), one folder has none but a name, one name holds a slash.
    const auto first = ChannelFolderPtr::create("AI");
    const auto second = ChannelFolderPtr::create("AI");
    const auto third = ChannelFolderPtr::create("AI");
    const auto named = ChannelFolderPtr::create("");
    named.setName("Port A/B");
    const auto impostor = ChannelFolderPtr::create("AI~2");
    for (const auto& folder : {first, second, third, named, impostor})
        root.addChild(folder);
    const auto channel = syncChannel(SampleDataType::Int32, "0");
    second.addChild(channel);

    EXPECT_EQ(first.getNodeId(), "data/daq/channels/AI");
    EXPECT_EQ(second.getNodeId(), "data/daq/channels/AI~2");
    EXPECT_EQ(third.getNodeId(), "data/daq/channels/AI~3");
    EXPECT_EQ(named.getNodeId(), "data/daq/channels/Port A_B");
    EXPECT_EQ(impostor.getNodeId(), "data/daq/channels/AI~2~2");
    EXPECT_EQ(channel.getNodeId(), "data/daq/channels/AI~2/0");
    EXPECT_EQ(channel.getPropertyValue<std::string>("NodeId"), "data/daq/channels/AI~2/0");
    EXPECT_TRUE(channel.getPropertyValue("Parent").equals(second));
    EXPECT_TRUE(channel.getParent().equals(second));
    EXPECT_FALSE(tree.data.getParent());

    const auto children = root.getChildren();
    ASSERT_EQ(children.size(), 5u);
    EXPECT_TRUE(children[1].equals(second));
    EXPECT_TRUE(children[4].equals(impostor));
}

TEST(Tree, RefusesImpossiblePlaces) {
    Tree tree;
    const auto root = tree.module.getRootFolder();
    const auto outer = ChannelFolderPtr::create("outer");
    const auto inner = ChannelFolderPtr::create("inner");
    outer.addChild(inner);
    EXPECT_THROW(inner.addChild(outer), InvalidOperationException);
    EXPECT_THROW(outer.addChild(outer), InvalidOperationException);
    root.addChild(outer);
    EXPECT_THROW(root.addChild(outer), InvalidOperationException) << "it would stand in two places";
    EXPECT_THROW(checkErrorInfo(tree.data->addDataModule(tree.module.get())), InvalidOperationException);
    EXPECT_EQ(codeOf(root->addChild(nullptr)), Errors::ArgumentNull);
    EXPECT_EQ(root.getChildren().size(), 1u);
}

TEST(Tree, ParentsAreWeak) {
    const auto channel = syncChannel(SampleDataType::Int32, "5");
    {
        const auto folder = ChannelFolderPtr::create("F");
        folder.addChild(channel);
        EXPECT_EQ(channel.getNodeId(), "F/5");
    }
    EXPECT_FALSE(channel.getParent());
    EXPECT_EQ(channel.getNodeId(), "5");
}

TEST(Tree, DataHoldsModeCycleTimeAndClock) {
    Tree tree;
    EXPECT_EQ(tree.data.getCycleTimeMs(), 20);
    EXPECT_EQ(tree.data.getPropertyValue<int64_t>("OperationMode"), 1);
    EXPECT_FALSE(tree.data.getPropertyValue<bool>("isUpdatingFromConfiguration"));
    EXPECT_THROW(tree.data.getClockProvider(), UninitializedException);
    ASSERT_EQ(tree.data.getDataModules().size(), 1u);
    EXPECT_TRUE(tree.data.getDataModules()[0].equals(tree.module));
    // The module's rate handlers ask the parent for this one.
    EXPECT_FALSE(tree.module.getParent().getPropertyValue<bool>("isUpdatingFromConfiguration"));

    IData* none = nullptr;
    EXPECT_EQ(codeOf(createData(&none, StringPtr("x").get(), 0)), Errors::InvalidParameter);
}

TEST(ModuleConfig, TakesProvidersAndForgetsThemInTheNextRound) {
    Tree tree;
    bool alive = false;
    auto newConfig = [&] {
        return made<IModuleConfig>([&](IModuleConfig** r) { return createModuleConfig(r, tree.data.get()); });
    };
    auto clockOf = [](const ModuleConfigPtr& config) {
        IClockProvider* clock = nullptr;
        ILoopProvider* loop = nullptr;
        IAbsTimeProvider* time = nullptr;
        checkErrorInfo(zornGetRegisteredProviders(config.get(), &clock, &loop, &time));
        EXPECT_EQ(loop, nullptr);
        EXPECT_EQ(time, nullptr);
        return ObjectPtr<IClockProvider>::take(clock);
    };

    auto config = newConfig();
    EXPECT_FALSE(clockOf(config));
    {
        const auto clock = ObjectPtr<IClockProvider>::take(new CountingClock(alive));
        checkErrorInfo(config->setClockProvider(clock.get()));
    }
    long ticks = 0;
    checkErrorInfo(tree.data.getClockProvider()->getCurrentClock(&ticks));
    EXPECT_EQ(ticks, 42);
    EXPECT_TRUE(clockOf(config));

    // The next round begins without a clock, and nothing keeps the old one but the old round.
    const auto next = newConfig();
    EXPECT_THROW(tree.data.getClockProvider(), UninitializedException);
    EXPECT_FALSE(clockOf(next));
    EXPECT_TRUE(alive);
    config.release();
    EXPECT_FALSE(alive);
}

TEST(ModuleAddParams, HandsOutWhatItWasGivenAndNeedsAllOfIt) {
    Tree tree;
    const AcquisitionSyncPtr sync = newSync();
    IModuleAddParams* raw = nullptr;
    EXPECT_EQ(createModuleAddParams(&raw, nullptr, tree.module.get(), sync.get()), Errors::ArgumentNull);
    EXPECT_EQ(createModuleAddParams(&raw, tree.data.get(), nullptr, sync.get()), Errors::ArgumentNull);
    EXPECT_EQ(createModuleAddParams(&raw, tree.data.get(), tree.module.get(), nullptr), Errors::ArgumentNull);
    checkErrorInfo(createModuleAddParams(&raw, tree.data.get(), tree.module.get(), sync.get()));
    const auto parameters = ObjectPtr<IModuleAddParams>::take(raw);
    IData* data = nullptr;
    checkErrorInfo(parameters->getData(&data));
    EXPECT_TRUE(ObjectPtr<IData>::take(data) == tree.data);
}

TEST(AcquisitionSync, ExcludesOthersAndTellsMisuse) {
    const AcquisitionSyncPtr sync = newSync();
    sync.lock();
    EXPECT_THROW(sync.lock(), InvalidStateException) << "an error instead of a thread that waits for itself";
    ErrCode fromOther = 0;
    std::thread([&] { fromOther = codeOf(sync->unlock()); }).join();
    EXPECT_EQ(fromOther, Errors::InvalidState);
    sync.unlock();
    EXPECT_THROW(sync.unlock(), InvalidStateException);

    int counter = 0;
    auto count = [&] {
        for (int i = 0; i < 20000; ++i) {
            sync.lock();
            ++counter;
            sync.unlock();
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(counter, 40000);
}

TEST(Versions, AsTheModulesExpect) {
    unsigned int major = 0;
    unsigned int minor = 0;
    unsigned int patch = 9;
    zornCoreStructureGetVersion(&major, &minor, &patch);
    EXPECT_EQ(major, 1u);
    EXPECT_EQ(minor, 2u);
    EXPECT_EQ(patch, 0u);
}
