#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <zorn/objects/property_object.h>
#include <zorn/structure/module.h>

#include "tests/module/ModuleFile.h"

// A host with other versions: this program stands in front of the host's libraries and answers for them.
using namespace Harvane::RT::Core;

namespace {

struct Version {
    unsigned int major;
    unsigned int minor;
    unsigned int patch;
};

struct HostVersions {
    Version coreTypes{1, 1, 0};
    Version coreObjects{1, 0, 0};
    Version coreStructure{1, 2, 0};
    Version moduleManager{1, 0, 0};
    Version scheduler{1, 0, 0};
    std::vector<std::string> asked;
};
HostVersions host;

void answer(const char* name, const Version& version, unsigned int* major, unsigned int* minor, unsigned int* patch) {
    host.asked.emplace_back(name);
    *major = version.major;
    *minor = version.minor;
    *patch = version.patch;
}

bool refuseClasses = false;

}  // namespace

namespace Harvane::RT::Core {

ZORN_FUNCTION void zornCoreTypesGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer("CoreTypes", host.coreTypes, major, minor, patch);
}
ZORN_FUNCTION void zornCoreObjectsGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer("CoreObjects", host.coreObjects, major, minor, patch);
}
ZORN_FUNCTION void zornCoreStructureGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer("CoreStructure", host.coreStructure, major, minor, patch);
}
ZORN_FUNCTION void zornModuleManagerGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer("ModuleManager", host.moduleManager, major, minor, patch);
}
ZORN_FUNCTION void zornSchedulerGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer("Scheduler", host.scheduler, major, minor, patch);
}
ZORN_FUNCTION ErrCode createProperyObjectClassWithName(IPropertyObjectClass** object, IString* name) {
    if (refuseClasses) {
        return makeError(Errors::InvalidValue, "The host is closed today");
    }
    using Function = ErrCode (*)(IPropertyObjectClass**, IString*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "createProperyObjectClassWithName"))(object, name);
}

}  // namespace Harvane::RT::Core

namespace {

class HostVersionTest : public testing::Test {
protected:
    HostVersionTest() { host = HostVersions(); }
    ~HostVersionTest() override { refuseClasses = false; }

    static std::string check(const ModuleFile& module, ErrCode expected) {
        IString* message = nullptr;
        EXPECT_EQ(module.call("zornCheckDependencies", &message), expected);
        return StringPtr(ObjectPtr<IString>::take(message)).toStdString();
    }
};

using Names = std::vector<std::string>;

TEST_F(HostVersionTest, OnlyTheMajorNumberCounts) {
    ModuleFile module;
    EXPECT_EQ(check(module, Errors::Success), "");
    EXPECT_EQ(host.asked, (Names{"CoreTypes", "CoreObjects", "CoreStructure", "ModuleManager", "Scheduler"}));
    host.coreTypes = {1, 9, 7};
    host.scheduler = {1, 77, 0};
    EXPECT_EQ(check(module, Errors::Success), "");
}

TEST_F(HostVersionTest, OtherMajorNumbersAreRefused) {
    ModuleFile module;
    struct Row {
        Version HostVersions::*library;
        Version found;
        const char* text;
        size_t asked;
    };
    for (const Row& row :
         {Row{&HostVersions::coreTypes, {2, 0, 0},
              "Incompatible CoreTypes v1.1.0 (expected compatible with v2.0.0)", 1},
          Row{&HostVersions::coreObjects, {0, 9, 1},
              "Incompatible CoreObjects v1.0.0 (expected compatible with v0.9.1)", 2},
          Row{&HostVersions::coreStructure, {2, 3, 4},
              "Incompatible CoreStructure v1.2.0 (expected compatible with v2.3.4)", 3},
          Row{&HostVersions::moduleManager, {3, 0, 0},
              "Incompatible ModuleManager v1.0.0 (expected compatible with v3.0.0)", 4},
          Row{&HostVersions::scheduler, {2, 0, 1}, "Incompatible Scheduler v1.0.0 (expected compatible with v2.0.1)",
              5}}) {
        host = HostVersions();
        host.*row.library = row.found;
        EXPECT_EQ(check(module, Errors::IncompatibleVersion), row.text);
        // The first that fails ends the check.
        EXPECT_EQ(host.asked.size(), row.asked);
        EXPECT_EQ(module.call("zornCheckDependencies", static_cast<IString**>(nullptr)), Errors::IncompatibleVersion);
    }
}

// What fails while the library is loaded is told by the check and doesn't end the process; a host of another version
// is the likelier cause and comes first.
TEST_F(HostVersionTest, FailuresDuringTheLoadAreReported) {
    refuseClasses = true;
    ModuleFile module;
    EXPECT_EQ(check(module, Errors::InvalidValue), "The host is closed today");
    EXPECT_EQ(module.call("zornCheckDependencies", static_cast<IString**>(nullptr)), Errors::InvalidValue);
    host.coreTypes = {2, 0, 0};
    EXPECT_EQ(check(module, Errors::IncompatibleVersion),
              "Incompatible CoreTypes v1.1.0 (expected compatible with v2.0.0)");
}

}  // namespace
