#include <thread>

#include "tests/host/corestructure/Helpers.h"

using namespace Harvane::RT::Core;

namespace {

struct Tree {
    DataPtr data = made<IData>(createData, StringPtr("data").get(), 20L);
    DataModulePtr module = made<IDataModule>(createDataModule, StringPtr("daq").get());
    Tree() { checkErrorInfo(data->addDataModule(module.get())); }
};

}  // namespace

TEST(Tree, NodeIdsAreUniqueAndTellThePlace) {
    Tree tree;
    const auto root = tree.module.getRootFolder();
    EXPECT_EQ(root.getNodeId(), "data/daq/channels");

    // Identifiers repeat (channel numbers do), one folder has none but a name, one name holds a slash.
    std::vector<ChannelFolderPtr> folders;
    for (const char* id : {"AI", "AI", "AI", "", "AI~2"}) {
        folders.push_back(ChannelFolderPtr::create(id));
    }
    folders[3].setName("Port A/B");
    for (const auto& folder : folders) {
        root.addChild(folder);
    }
    const auto channel = syncChannel(SampleDataType::Int32, "0");
    folders[1].addChild(channel);
    const auto children = root.getChildren();
    ASSERT_EQ(children.size(), folders.size());
    const char* const ids[] = {"AI", "AI~2", "AI~3", "Port A_B", "AI~2~2"};
    for (size_t i = 0; i < folders.size(); ++i) {
        EXPECT_TRUE(children[i].equals(folders[i]));
        EXPECT_EQ(folders[i].getNodeId(), std::string("data/daq/channels/") + ids[i]);
    }
    EXPECT_EQ(channel.getNodeId(), "data/daq/channels/AI~2/0");
    EXPECT_EQ(get(channel, "NodeId"), "data/daq/channels/AI~2/0");
    EXPECT_TRUE(channel.getPropertyValue("Parent").equals(folders[1]));
    EXPECT_TRUE(channel.getParent().equals(folders[1]));
    EXPECT_FALSE(tree.data.getParent());
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

TEST(Tree, DataHoldsModeCycleTimeAndClock) {
    Tree tree;
    EXPECT_EQ(tree.data.getCycleTimeMs(), 20);
    EXPECT_EQ(tree.data.getPropertyValue<int64_t>("OperationMode"), 1);
    EXPECT_THROW(tree.data.getClockProvider(), UninitializedException);
    ASSERT_EQ(tree.data.getDataModules().size(), 1u);
    EXPECT_TRUE(tree.data.getDataModules()[0].equals(tree.module));
    // The module's rate handlers ask the parent for this one.
    EXPECT_FALSE(tree.module.getParent().getPropertyValue<bool>("isUpdatingFromConfiguration"));

    EXPECT_EQ(failure([] { made<IData>(createData, StringPtr("x").get(), 0L); }),
              "80000001 The cycle time must be 1 ms or more");
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
}
