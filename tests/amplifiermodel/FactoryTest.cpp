#include <sys/stat.h>

#include <zorn/objects/property_object.h>

#include "modules/daq/amplifier/DaqAmplifiersFactory.h"
#include "tests/amplifiermodel/TestAmplifiers.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

PropertyObjectClassPtr hostClass(const char* name) {
    return PropertyObjectManagerPtr::create().findClass(name);
}

struct FactoryTest : testing::Test {
    // Registers the folder and gives what was printed meanwhile.
    std::string registerFolder(DaqAmplifiersFactory& factory, const std::string& directory) const {
        testing::internal::CaptureStdout();
        factory.registerAmplifiers(directory);
        return testing::internal::GetCapturedStdout();
    }

    TempFolder folder;
    DaqAmplifiersFactory factory;
};

TEST_F(FactoryTest, EveryFolderGivesTheUnknownAmplifier) {
    const std::string file = folder.write("file", "");
    for (const std::string& directory : {(folder.path / "missing").string() + "/", file}) {
        DaqAmplifiersFactory one;
        EXPECT_EQ(registerFolder(one, directory), "ERROR: Unknown Amplifier directory: " + directory + " \n");
        EXPECT_TRUE(hostClass("ampl_unknown"));
        EXPECT_EQ(one.getAmplifierClassName("0.0.0.0"), "ampl_unknown");
        one.unregisterAmplifiers();
        EXPECT_FALSE(hostClass("ampl_unknown"));
    }
    std::filesystem::create_directory(folder.path / "empty");
    EXPECT_EQ(registerFolder(factory, (folder.path / "empty").string()), "");
    EXPECT_EQ(factory.getAmplifierClassName("0.255.255.255"), "ampl_unknown");
}

TEST_F(FactoryTest, FilesOfAFolder) {
    // Then the class of this identifier; none: the unknown one.
    const std::tuple<const char*, std::string, const char*, const char*> rows[] = {
        {"good.json", definition("ampl_good", "1.1.1.1"), "1.1.1.1", "ampl_good"},
        {"more.dots.json", definition("ampl_dots", "1.1.1.2"), "1.1.1.2", "ampl_dots"},
        {"upper.JSON", definition("ampl_upper", "1.1.1.3"), "1.1.1.3", nullptr},
        {"saved.json.bak", definition("ampl_saved", "1.1.1.4"), "1.1.1.4", nullptr},
        {"below/below.json", definition("ampl_below", "1.1.1.5"), "1.1.1.5", nullptr},
        {"broken.json", definition("ampl_broken", "1.1.1.6").substr(5), "1.1.1.6", nullptr},
        {"empty.json", "", "", nullptr},
        {"folder.json/readme", "", "", nullptr},
        {"noclass.json", R"({"className": "RangeItem", "propValues": {"DisplayName": "10"}})", "", nullptr},
        {"list.json", "[1, 2]", "", nullptr},
        {"noid.json", definitionOf("ampl_noid", ""), "", nullptr},
        {"number.json",
         definitionOf("ampl_number", R"({"name": "AmplifierID", "type": "int", "readOnly": true, "readOnlyValue": 5})"),
         "5", "ampl_number"},
        {"novalue.json",
         definitionOf("ampl_novalue", R"({"name": "AmplifierID", "type": "string", "default": "1.1.1.7"})"), "1.1.1.7",
         nullptr},
        {"noname.json", definition("", "1.1.1.8"), "1.1.1.8", nullptr},
        {"channel.json", definition("CHANNEL", "1.1.1.9"), "1.1.1.9", nullptr},
    };
    for (const auto& [file, text, id, className] : rows) {
        folder.write(file, text);
    }
    // Opening this one would wait for ever.
    ASSERT_EQ(mkfifo((folder.path / "pipe.json").c_str(), 0600), 0);

    EXPECT_EQ(registerFolder(factory, folder.path.string() + "/"), "");
    std::map<std::string, bool> registered;  // what is of no use says why, and what was not read isn't there
    for (const auto& file : factory.files()) {
        registered[std::filesystem::path(file.path).filename()] = file.registered;
        EXPECT_EQ(file.definition.reason.empty(), file.registered) << file.path;
    }
    size_t read = 0;
    for (const auto& [file, text, id, className] : rows) {
        EXPECT_EQ(factory.getAmplifierClassName(id), className == nullptr ? "ampl_unknown" : className) << file;
        read += registered.count(file);
        EXPECT_EQ(registered[file], className != nullptr) << file;
    }
    EXPECT_EQ(read, 11u);
    // Whatever a file says of its parent, it is a channel.
    ASSERT_TRUE(hostClass("ampl_good"));
    EXPECT_EQ(hostClass("ampl_good").getParent(), "Channel");
    EXPECT_FALSE(hostClass("ampl_noid"));
    EXPECT_EQ(hostClass("Channel").getParent(), "ChannelNode");

    factory.unregisterAmplifiers();
    EXPECT_TRUE(factory.files().empty());
    EXPECT_EQ(factory.getAmplifierClassName("1.1.1.1"), "ampl_unknown");
    for (const char* name : {"ampl_good", "ampl_dots", "ampl_number", "ampl_novalue", "ampl_unknown"}) {
        EXPECT_FALSE(hostClass(name)) << name;
    }
    EXPECT_TRUE(hostClass("Channel"));
}

TEST_F(FactoryTest, TheLaterOfTwoFilesForOneAmplifierCounts) {
    EXPECT_TRUE(factory.initFromFile(folder.write("first.json", definition("ampl_first", "4.1.1.1"))));
    const std::string second = folder.write("second.json", definition("ampl_second", "4.1.1.1"));
    EXPECT_TRUE(factory.initFromFile(second));
    EXPECT_EQ(factory.getAmplifierClassName("4.1.1.1"), "ampl_second");
    // A copy of it has the class that is there already.
    EXPECT_TRUE(factory.initFromFile(folder.write("copy.json", definition("ampl_second", "4.1.1.1"))));
    EXPECT_EQ(factory.getDefinitionFile("ampl_second"), second);
    EXPECT_EQ(factory.getDefinitionFile("ampl_unknown"), "");
    // One name for two amplifiers: the second one would show the choices of the first.
    EXPECT_FALSE(factory.initFromFile(folder.write("third.json", definition("AMPL_First", "4.1.1.2"))));
    EXPECT_EQ(factory.getAmplifierClassName("4.1.1.2"), "ampl_unknown");
    factory.unregisterAmplifiers();
    EXPECT_FALSE(hostClass("ampl_first"));
    EXPECT_FALSE(hostClass("ampl_second"));
}

// Two modules in a process, or a module and a user of the entry points.
TEST_F(FactoryTest, FactoriesOfAProcessShareTheirClasses) {
    folder.write("a.json", definition("ampl_shared", "5.1.1.1"));
    for (const bool firstGoesFirst : {true, false}) {
        DaqAmplifiersFactory first;
        DaqAmplifiersFactory second;
        registerFolder(first, folder.path.string());
        registerFolder(second, folder.path.string());
        registerFolder(second, folder.path.string());  // again: still one user
        EXPECT_EQ(second.getAmplifierClassName("5.1.1.1"), "ampl_shared");
        EXPECT_EQ(second.getAmplifierClassName("0.0.0.0"), "ampl_unknown");
        (firstGoesFirst ? first : second).unregisterAmplifiers();
        EXPECT_TRUE(hostClass("ampl_shared")) << firstGoesFirst;
        EXPECT_TRUE(hostClass("ampl_unknown")) << firstGoesFirst;
        (firstGoesFirst ? second : first).unregisterAmplifiers();
        EXPECT_FALSE(hostClass("ampl_shared")) << firstGoesFirst;
        EXPECT_FALSE(hostClass("ampl_unknown")) << firstGoesFirst;
    }
    // A class that the host has from elsewhere is used and left where it is.
    const auto manager = PropertyObjectManagerPtr::create();
    manager.addClass(factory.deserializeAmplDefinition((folder.path / "a.json").string()));
    registerFolder(factory, folder.path.string());
    EXPECT_EQ(factory.getAmplifierClassName("5.1.1.1"), "ampl_shared");
    factory.unregisterAmplifiers();
    EXPECT_TRUE(hostClass("ampl_shared"));
    manager.removeClass("ampl_shared");
}

TEST(DefinitionReaderTest, IdentifiersThatAnAmplifierCanHave) {
    for (const char* text : {"0.0.0.0", "0.255.255.255", "2.1.3.2", "10.20.30.40"}) {
        EXPECT_TRUE(isAmplifierIdentifier(text)) << text;
    }
    for (const char* text : {"", "1", "1.2.3", "1.2.3.", "1.2.3.4.", "1.2.3.4.5", "01.0.1.1", "1.0.1.01", "1.0.1.00",
                             "1.0.1.256", "1.0.1.-1", "+1.0.1.1", " 1.0.1.1", "1.0.1.1 ", "1..1.1", "a.b.c.d"}) {
        EXPECT_FALSE(isAmplifierIdentifier(text)) << text;
    }
}

TEST_F(FactoryTest, EntryPoints) {
    folder.write("a.json", definition("ampl_entry", "6.1.1.1"));
    IDaqAmplifiersFactory* made = createDaqAmplifiersFactory();
    ASSERT_NE(made, nullptr);
    EXPECT_FALSE(hostClass("ampl_unknown"));
    made->registerAmplifiers(folder.path.string());
    EXPECT_TRUE(hostClass("ampl_entry"));
    releaseDaqAmplifiersFactory(made);
    EXPECT_FALSE(hostClass("ampl_entry"));
    releaseDaqAmplifiersFactory(nullptr);
}

}  // namespace
