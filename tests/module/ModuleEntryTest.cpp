#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <vector>

#include <zorn/logger/logger.h>

#include "modules/daq/objectmodel/IChannelBuffer.h"
#include "tests/host/Made.h"
#include "tests/module/ModuleFile.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

namespace {

constexpr const char* counterSymbol = "_ZN7Harvane2RT4Core24zornSharedLibObjectCountE";

struct ModuleEntryTest : testing::Test {
    ObjectPtr<IModuleDriver> createDriver(const char* entryPoint = "createDaqModuleDriver") const {
        return made<IModuleDriver>([&](IModuleDriver** driver) { return module.call(entryPoint, driver); });
    }
    static BasePtr factoryOf(const ObjectPtr<IModuleDriver>& driver) {
        return ListPtr(made<IList>([&](IList** list) { return driver->enumerateModuleFactories(list); })).getItemAt(0);
    }
    // Driver, factory and module have one name.
    template <class Named>
    static std::string nameOf(const ObjectPtr<Named>& named) {
        return StringPtr(made<IString>([&](IString** name) { return named->getName(name); })).toStdString();
    }
    static ObjectPtr<IModule> createInstance(const BasePtr& factory) {
        StringPtr name;
        auto instance = made<IModule>([&](IModule** raw) {
            IString* rawName = nullptr;
            const ErrCode code = factory.asPtr<IModuleFactory>()->createInstance(&rawName, raw);
            name = ObjectPtr<IString>::take(rawName);
            return code;
        });
        EXPECT_EQ(name, "Harvane Daq Module");
        return instance;
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

TEST_F(ModuleEntryTest, NullOutputs) {
    for (const char* name :
         {"createModuleDriver", "createDaqModuleDriver", "createDaqModule", "zornCanUnload", "zornGetObjectCount"}) {
        EXPECT_EQ(module.call(name, static_cast<void*>(nullptr)), Errors::ArgumentNull) << name;
    }
    EXPECT_EQ(module.call("createDaqChannelBuffer", static_cast<void**>(nullptr), static_cast<IChannel*>(nullptr)),
              Errors::ArgumentNull);
    const auto driver = createDriver();
    EXPECT_EQ(driver->enumerateModuleFactories(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(driver->getVersionInfo(nullptr), Errors::ArgumentNull);
    const auto factory = factoryOf(driver).asPtr<IModuleFactory>();
    IString* name = nullptr;
    IModule* instance = nullptr;
    EXPECT_EQ(factory->createInstance(nullptr, &instance), Errors::ArgumentNull);
    EXPECT_EQ(factory->createInstance(&name, nullptr), Errors::ArgumentNull);
    EXPECT_TRUE(name == nullptr && instance == nullptr);
}

TEST_F(ModuleEntryTest, DriverAndFactory) {
    for (const char* entryPoint : {"createDaqModuleDriver", "createModuleDriver"}) {
        const auto driver = createDriver(entryPoint);
        EXPECT_EQ(nameOf(driver), "Harvane Daq Module");
        EXPECT_EQ(nameOf(factoryOf(driver).asPtr<IModuleFactory>()), "Harvane Daq Module");
        const auto version = made<IVersionInfo>([&](IVersionInfo** info) { return driver->getVersionInfo(info); });
        EXPECT_EQ(textOf(version), "1.0.0");
    }
}

TEST_F(ModuleEntryTest, OneInstanceAFactory) {
    const auto driver = createDriver();
    const auto factory = factoryOf(driver);
    auto instance = createInstance(factory);
    EXPECT_EQ(failure([&] { createInstance(factory); }).substr(0, 8), "80000009");
    // Also after the one instance has gone; another factory counts for itself.
    instance.release();
    EXPECT_EQ(failure([&] { createInstance(factory); }).substr(0, 8), "80000009");
    EXPECT_TRUE(createInstance(factoryOf(driver)));
}

TEST_F(ModuleEntryTest, ModuleObject) {
    const auto instance = made<IModule>([&](IModule** raw) { return module.call("createDaqModule", raw); });
    EXPECT_TRUE(instance.asPtrOrNull<IClockProvider>());
    EXPECT_TRUE(instance.asPtrOrNull<IAbsTimeProvider>());
    EXPECT_TRUE(instance.asPtrOrNull<ILoopProvider>());

    const auto weak =
        made<IWeakRef>([&](IWeakRef** reference) { return instance.asPtr<ISupportsWeakRef>()->getWeakRef(reference); });
    EXPECT_TRUE(made<IBaseObject>([&](IBaseObject** object) { return weak->getRef(object); }).equals(instance));

    // Nothing passes the edge as an exception.
    EXPECT_EQ(instance->add(nullptr), Errors::InvalidParameter);
    EXPECT_EQ(instance->start(), Errors::InvalidState);
    EXPECT_FALSE(takeErrorMessage().empty());
}

TEST_F(ModuleEntryTest, CountsItsObjects) {
    const auto& counter = *static_cast<std::atomic<uint64_t>*>(module.symbol(counterSymbol));
    EXPECT_TRUE(module.canUnload());
    auto driver = createDriver();
    EXPECT_EQ(counter.load(), 1u);
    EXPECT_FALSE(module.canUnload());
    auto factory = factoryOf(driver);
    auto instance = createInstance(factory);
    EXPECT_EQ(module.objectCount(), 3u);
    driver.release();
    factory.release();
    EXPECT_FALSE(module.canUnload());
    instance.release();
    // The host's objects count elsewhere.
    const StringPtr hostObject("text");
    EXPECT_EQ(module.objectCount(), 0u);
    EXPECT_TRUE(module.canUnload());
}

TEST_F(ModuleEntryTest, ChannelBuffers) {
    const ChannelPtr<> channel =
        made<IChannel>(createSyncChannel, StringPtr("0").get(), static_cast<int>(SampleDataType::Float64), 0.0);
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

TEST_F(ModuleEntryTest, RegistersTheClassOfItsTests) {
    EXPECT_EQ(module.call("zornIntializeTesting"), Errors::Success);
    EXPECT_EQ(module.call("zornIntializeTesting"), Errors::Success);
    EXPECT_TRUE(PropertyObjectManagerPtr::create().findClass("test"));
}

TEST_F(ModuleEntryTest, ConnectsTheLogger) {
    ASSERT_EQ(module.call("zornInitDaqModuleLibrary"), Errors::Success);
    const auto logger = made<ILogger>([](ILogger** found) { return zornGetLogger("DaqModule", found); });
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
            EXPECT_TRUE(made<IModule>([&](IModule** instance) { return module.call("createDaqModule", instance); }));
            ASSERT_TRUE(module.canUnload());
        }
        ASSERT_FALSE(ModuleFile::isLoaded());
        // What reads setups asks the factories by name.
        const StringPtr text(R"({"className": "RangeItem", "propValues": {"Min": -1.0}})");
        const GenericPropertyObjectPtr item =
            made<IBaseObject>([&](IBaseObject** object) {
                return made<IDeserializer>(createJsonDeserializer)->deserialize(text.get(), object);
            }).asPtr<IPropertyObject>();
        EXPECT_EQ(item.getPropertyValue<double>("Min"), -1.0);
    }
}

}  // namespace
