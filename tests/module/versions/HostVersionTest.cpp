#include <gtest/gtest.h>

#include <iterator>
#include <vector>

#include <zorn/objects/property_object.h>

#include "tests/module/ModuleFile.h"

// A host with other versions: this program stands in front of the host's libraries and answers for them.
using namespace Harvane::RT::Core;

namespace {

struct Version {
    unsigned int major;
    unsigned int minor;
    unsigned int patch;
};

// What each library answers, by its place in the module's check, and who was asked.
struct HostVersions {
    Version answers[5] = {{1, 1, 0}, {1, 0, 0}, {1, 2, 0}, {1, 0, 0}, {1, 0, 0}};
    std::vector<int> asked;
};
HostVersions host;

void answer(int library, unsigned int* major, unsigned int* minor, unsigned int* patch) {
    host.asked.push_back(library);
    *major = host.answers[library].major;
    *minor = host.answers[library].minor;
    *patch = host.answers[library].patch;
}

bool refuseClasses = false;

}  // namespace

namespace Harvane::RT::Core {

ZORN_FUNCTION void zornCoreTypesGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer(0, major, minor, patch);
}
ZORN_FUNCTION void zornCoreObjectsGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer(1, major, minor, patch);
}
ZORN_FUNCTION void zornCoreStructureGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer(2, major, minor, patch);
}
ZORN_FUNCTION void zornModuleManagerGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer(3, major, minor, patch);
}
ZORN_FUNCTION void zornSchedulerGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    answer(4, major, minor, patch);
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

struct HostVersionTest : testing::Test {
    HostVersionTest() { host = HostVersions(); }
    ~HostVersionTest() override { refuseClasses = false; }

    static std::string check(const ModuleFile& module, ErrCode expected) {
        IString* message = nullptr;
        EXPECT_EQ(module.call("zornCheckDependencies", &message), expected);
        return StringPtr(ObjectPtr<IString>::take(message)).toStdString();
    }
};

TEST_F(HostVersionTest, OnlyTheMajorNumberCounts) {
    ModuleFile module;
    host.answers[0] = {1, 9, 7};
    host.answers[4] = {1, 77, 0};
    EXPECT_EQ(check(module, Errors::Success), "");
    EXPECT_EQ(host.asked, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(HostVersionTest, OtherMajorNumbersAreRefused) {
    ModuleFile module;
    const std::pair<Version, const char*> rows[] = {
        {{2, 0, 0}, "Incompatible CoreTypes v1.1.0 (expected compatible with v2.0.0)"},
        {{0, 9, 1}, "Incompatible CoreObjects v1.0.0 (expected compatible with v0.9.1)"},
        {{2, 3, 4}, "Incompatible CoreStructure v1.2.0 (expected compatible with v2.3.4)"},
        {{3, 0, 0}, "Incompatible ModuleManager v1.0.0 (expected compatible with v3.0.0)"},
        {{2, 0, 1}, "Incompatible Scheduler v1.0.0 (expected compatible with v2.0.1)"},
    };
    for (size_t library = 0; library < std::size(rows); ++library) {
        host = HostVersions();
        host.answers[library] = rows[library].first;
        EXPECT_EQ(check(module, Errors::IncompatibleVersion), rows[library].second);
        // The first that fails ends the check.
        EXPECT_EQ(host.asked.size(), library + 1);
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
    host.answers[0] = {2, 0, 0};
    EXPECT_EQ(check(module, Errors::IncompatibleVersion),
              "Incompatible CoreTypes v1.1.0 (expected compatible with v2.0.0)");
}

}  // namespace
