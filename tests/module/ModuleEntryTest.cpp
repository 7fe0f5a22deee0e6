#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <zorn/logger/logger.h>
#include <zorn/structure/module.h>

#include "modules/daq/objectmodel/IChannelBuffer.h"
#include "tests/module/ModuleFile.h"

using namespace Harvane::RT::Core;

namespace {

constexpr const char* counterSymbol = "_ZN7Harvane2RT4Core24zornSharedLibObjectCountE";

std::string take(IString* text) {
    return StringPtr(ObjectPtr<IString>::take(text)).toStdString();
}

class ModuleEntryTest : public testing::Test {
protected:
    ObjectPtr<IModuleDriver> createDriver(const char* entryPoint = "createDaqModuleDriver") const {
        IModuleDriver* driver = nullptr;
        checkErrorInfo(module.call(entryPoint, &driver));
        return ObjectPtr<IModuleDriver>::take(driver);
    }
    static ListPtr factoriesOf(const ObjectPtr<IModuleDriver>& driver) {
        IList* list = nullptr;
        checkErrorInfo(driver->enumerateModuleFactories(&list));
        return ObjectPtr<IList>::take(list);
    }
    static ObjectPtr<IModuleFactory> factoryOf(const ObjectPtr<IModuleDriver>& driver) {
        return factoriesOf(driver).getItemAt(0).asPtr<IModuleFactory>();
    }

    ModuleFile module;
};

// Names that the binary defines for others.
std::vector<std::string> exportedNames() {
    std::ifstream file(DAQ_MODULE_FILE, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<std::string> names;
    if (bytes.size() < sizeof(Elf64_Ehdr)) {
        return names;
    }
    const auto* header = reinterpret_cast<const Elf64_Ehdr*>(bytes.data());
    const auto* sections = reinterpret_cast<const Elf64_Shdr*>(bytes.data() + header->e_shoff);
    for (int i = 0; i < header->e_shnum; ++i) {
        if (sections[i].sh_type != SHT_DYNSYM) {
            continue;
        }
        const auto* symbols = reinterpret_cast<const Elf64_Sym*>(bytes.data() + sections[i].sh_offset);
        const char* texts = bytes.data() + sections[sections[i].sh_link].sh_offset;
        for (size_t k = 0; k < sections[i].sh_size / sizeof(Elf64_Sym); ++k) {
            if (symbols[k].st_shndx != SHN_UNDEF && ELF64_ST_BIND(symbols[k].st_info) != STB_LOCAL) {
                names.emplace_back(texts + symbols[k].st_name);
            }
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A stray C++ symbol could be bound to another library's, or keep the module from being unloaded.
TEST(ModuleBinaryTest, ExportsTheEntryPointsAndTheCounterOnly) {
    EXPECT_EQ(exportedNames(),
              (std::vector<std::string>{counterSymbol, "createDaqAmplifiersFactory", "createDaqChannelBuffer",
                                        "createDaqModule", "createDaqModuleDriver", "createModuleDriver",
                                        "releaseDaqAmplifiersFactory", "removeDaqChannelBuffer", "zornCanUnload",
                                        "zornCheckDependencies", "zornGetObjectCount", "zornInitDaqModuleLibrary",
                                        "zornIntializeTesting"}));
}

TEST_F(ModuleEntryTest, FitsThisHost) {
    IString* message = reinterpret_cast<IString*>(this);
    EXPECT_EQ(module.call("zornCheckDependencies", &message), Errors::Success);
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(module.call("zornCheckDependencies", static_cast<IString**>(nullptr)), Errors::Success);
}

TEST_F(ModuleEntryTest, NullOutputs) {
    for (const char* name : {"createModuleDriver", "createDaqModuleDriver", "createDaqModule", "zornCanUnload",
                             "zornGetObjectCount"}) {
        EXPECT_EQ(module.call(name, static_cast<void*>(nullptr)), Errors::ArgumentNull) << name;
    }
    EXPECT_EQ(module.call("createDaqChannelBuffer", static_cast<void**>(nullptr), static_cast<IChannel*>(nullptr)),
              Errors::ArgumentNull);
    const auto driver = createDriver();
    EXPECT_EQ(driver->getName(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(driver->enumerateModuleFactories(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(driver->getVersionInfo(nullptr), Errors::ArgumentNull);
    const auto factory = factoryOf(driver);
    EXPECT_EQ(factory->getName(nullptr), Errors::ArgumentNull);
    IString* name = nullptr;
    IModule* made = nullptr;
    EXPECT_EQ(factory->createInstance(nullptr, &made), Errors::ArgumentNull);
    EXPECT_EQ(factory->createInstance(&name, nullptr), Errors::ArgumentNull);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(made, nullptr);
}

TEST_F(ModuleEntryTest, DriverAndFactory) {
    for (const char* entryPoint : {"createDaqModuleDriver", "createModuleDriver"}) {
        const auto driver = createDriver(entryPoint);
        IString* name = nullptr;
        checkErrorInfo(driver->getName(&name));
        EXPECT_EQ(take(name), "Harvane Daq Module");
        IVersionInfo* rawVersion = nullptr;
        checkErrorInfo(driver->getVersionInfo(&rawVersion));
        const auto version = ObjectPtr<IVersionInfo>::take(rawVersion);
        unsigned int major = 9;
        unsigned int minor = 9;
        unsigned int patch = 9;
        checkErrorInfo(version->getMajor(&major));
        checkErrorInfo(version->getMinor(&minor));
        checkErrorInfo(version->getPatch(&patch));
        EXPECT_EQ((std::vector<unsigned int>{major, minor, patch}), (std::vector<unsigned int>{1, 0, 0}));

        const ListPtr first = factoriesOf(driver);
        EXPECT_EQ(first.getCount(), 1u);
        EXPECT_FALSE(first.getItemAt(0).equals(factoriesOf(driver).getItemAt(0)));
        checkErrorInfo(factoryOf(driver)->getName(&name));
        EXPECT_EQ(take(name), "Harvane Daq Module");
    }
}

TEST_F(ModuleEntryTest, OneInstanceAFactory) {
    const auto driver = createDriver();
    const auto factory = factoryOf(driver);
    IString* name = nullptr;
    IModule* raw = nullptr;
    ASSERT_EQ(factory->createInstance(&name, &raw), Errors::Success);
    EXPECT_EQ(take(name), "Harvane Daq Module");
    auto instance = ObjectPtr<IModule>::take(raw);

    name = nullptr;
    raw = nullptr;
    EXPECT_EQ(factory->createInstance(&name, &raw), Errors::InstanceLimit);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(raw, nullptr);
    // Also after the one instance has gone; another factory counts for itself.
    instance.release();
    EXPECT_EQ(factory->createInstance(&name, &raw), Errors::InstanceLimit);
    ASSERT_EQ(factoryOf(driver)->createInstance(&name, &raw), Errors::Success);
    take(name);
    ObjectPtr<IModule>::take(raw).release();
}

TEST_F(ModuleEntryTest, ModuleObject) {
    IModule* raw = nullptr;
    ASSERT_EQ(module.call("createDaqModule", &raw), Errors::Success);
    const auto instance = ObjectPtr<IModule>::take(raw);
    EXPECT_TRUE(instance.asPtrOrNull<IClockProvider>());
    EXPECT_TRUE(instance.asPtrOrNull<IAbsTimeProvider>());
    EXPECT_TRUE(instance.asPtrOrNull<ILoopProvider>());
    const GenericPropertyObjectPtr properties = instance.asPtr<IPropertyObject>();
    properties.setPropertyValue("Note", "kept");
    EXPECT_EQ(properties.getPropertyValue<std::string>("Note"), "kept");

    IWeakRef* rawWeak = nullptr;
    checkErrorInfo(instance.asPtr<ISupportsWeakRef>()->getWeakRef(&rawWeak));
    const auto weak = ObjectPtr<IWeakRef>::take(rawWeak);
    IBaseObject* object = nullptr;
    EXPECT_EQ(weak->getRef(&object), Errors::Success);
    BasePtr::take(object).release();

    // Nothing passes the edge as an exception.
    EXPECT_EQ(instance->add(nullptr), Errors::InvalidParameter);
    EXPECT_EQ(instance->start(), Errors::InvalidState);
    EXPECT_FALSE(takeErrorMessage().empty());
}

TEST_F(ModuleEntryTest, CountsItsObjects) {
    const auto& counter = *static_cast<std::atomic<uint64_t>*>(module.symbol(counterSymbol));
    ASSERT_EQ(module.objectCount(), 0u);
    EXPECT_TRUE(module.canUnload());

    auto driver = createDriver();
    EXPECT_EQ(module.objectCount(), 1u);
    EXPECT_EQ(counter.load(), 1u);
    EXPECT_FALSE(module.canUnload());
    auto factory = factoryOf(driver);
    EXPECT_EQ(module.objectCount(), 2u);
    IString* name = nullptr;
    IModule* raw = nullptr;
    checkErrorInfo(factory->createInstance(&name, &raw));
    take(name);
    auto instance = ObjectPtr<IModule>::take(raw);
    EXPECT_EQ(module.objectCount(), 3u);
    driver.release();
    factory.release();
    EXPECT_EQ(module.objectCount(), 1u);
    EXPECT_FALSE(module.canUnload());
    instance.release();
    EXPECT_EQ(module.objectCount(), 0u);
    EXPECT_TRUE(module.canUnload());
    // The host's objects count elsewhere.
    const StringPtr hostObject("text");
    EXPECT_TRUE(module.canUnload());
}

TEST_F(ModuleEntryTest, ChannelBuffers) {
    IChannel* made = nullptr;
    checkErrorInfo(createSyncChannel(&made, StringPtr("0").get(), static_cast<int>(SampleDataType::Float64),
                                     std::numeric_limits<double>::quiet_NaN()));
    const ChannelPtr<> channel(ObjectPtr<IChannel>::take(made));
    channel.setUsed(true);
    channel.setSampleRate(Ratio{8, 1});
    checkErrorInfo(channel->initializeAcquisition());

    void* raw = nullptr;
    ASSERT_EQ(module.call("createDaqChannelBuffer", &raw, channel.get()), Errors::Success);
    EXPECT_EQ(module.objectCount(), 1u);
    auto* buffer = static_cast<Harvane::RT::Modules::Daq::IChannelBuffer*>(raw);
    const double sample = 1.5;
    buffer->addSample(&sample);
    EXPECT_EQ(channel.getBuffer().getSampleInDouble(0), 1.5);
    EXPECT_EQ(module.call("removeDaqChannelBuffer", buffer), Errors::Success);
    EXPECT_EQ(module.call("removeDaqChannelBuffer", static_cast<void*>(nullptr)), Errors::Success);
    EXPECT_TRUE(module.canUnload());
}

TEST_F(ModuleEntryTest, RegistersItsClasses) {
    const auto manager = PropertyObjectManagerPtr::create();
    for (const char* name : {"Node", "ChannelNode", "Channel", "RangeItem"}) {
        EXPECT_TRUE(manager.findClass(name)) << name;
    }
    EXPECT_EQ(module.call("zornIntializeTesting"), Errors::Success);
    EXPECT_EQ(module.call("zornIntializeTesting"), Errors::Success);
    EXPECT_TRUE(manager.findClass("test"));
}

TEST_F(ModuleEntryTest, ConnectsTheLogger) {
    ASSERT_EQ(module.call("zornInitDaqModuleLibrary"), Errors::Success);
    ILogger* raw = nullptr;
    ASSERT_EQ(zornGetLogger("DaqModule", &raw), Errors::Success);
    const auto logger = ObjectPtr<ILogger>::take(raw);
    // It may have been narrowed meanwhile.
    checkErrorInfo(logger->setLevel(5));
    ASSERT_EQ(module.call("zornInitDaqModuleLibrary"), Errors::Success);
    int level = -1;
    checkErrorInfo(logger->getLevel(&level));
    EXPECT_EQ(level, 0);
}

// The code is really gone in between, so that nothing of it may have stayed behind in the host.
TEST(ModuleLoadTest, LoadsAndUnloadsRepeatedly) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_FALSE(ModuleFile::isLoaded());
        {
            ModuleFile module;
            ASSERT_TRUE(ModuleFile::isLoaded());
            ASSERT_EQ(module.call("zornCheckDependencies", static_cast<IString**>(nullptr)), Errors::Success);
            ASSERT_EQ(module.call("zornInitDaqModuleLibrary"), Errors::Success);
            IModule* raw = nullptr;
            ASSERT_EQ(module.call("createDaqModule", &raw), Errors::Success);
            ObjectPtr<IModule>::take(raw).release();
            ASSERT_TRUE(module.canUnload());
        }
        ASSERT_FALSE(ModuleFile::isLoaded());
        // What reads setups asks the factories by name.
        IDeserializer* rawDeserializer = nullptr;
        checkErrorInfo(createJsonDeserializer(&rawDeserializer));
        const auto deserializer = ObjectPtr<IDeserializer>::take(rawDeserializer);
        IBaseObject* object = nullptr;
        const StringPtr text(R"({"className": "RangeItem", "propValues": {"Min": -1.0}})");
        ASSERT_EQ(deserializer->deserialize(text.get(), &object), Errors::Success) << takeErrorMessage();
        const GenericPropertyObjectPtr item = BasePtr::take(object).asPtr<IPropertyObject>();
        EXPECT_EQ(item.getPropertyValue<double>("Min"), -1.0);
    }
}

}  // namespace
