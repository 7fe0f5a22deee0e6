#include <zorn/types/object_impl.h>
#include <zorn/types/values.h>

namespace Harvane::RT::Core {
namespace {

class VersionInfoImpl final : public ObjectImpl<IVersionInfo> {
public:
    VersionInfoImpl(unsigned int major, unsigned int minor, unsigned int patch)
        : major_(major), minor_(minor), patch_(patch) {}

    ErrCode getMajor(unsigned int* value) override { return handOut(major_, value); }
    ErrCode getMinor(unsigned int* value) override { return handOut(minor_, value); }
    ErrCode getPatch(unsigned int* value) override { return handOut(patch_, value); }
    ErrCode toString(char** text) override {
        if (text == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        char buffer[40];
        std::snprintf(buffer, sizeof buffer, "%u.%u.%u", major_, minor_, patch_);
        return zornDuplicateCharPtr(text, buffer);
    }

private:
    unsigned int major_;
    unsigned int minor_;
    unsigned int patch_;
};

}  // namespace

ErrCode createVersionInfo(IVersionInfo** object, unsigned int major, unsigned int minor, unsigned int patch) {
    return createObject<VersionInfoImpl>(object, major, minor, patch);
}

void zornCoreTypesGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    if (major != nullptr) {
        *major = 1;
    }
    if (minor != nullptr) {
        *minor = 1;
    }
    if (patch != nullptr) {
        *patch = 0;
    }
}

size_t zornCoreTypesGetObjectCount() {
    return zornSharedLibObjectCount.load();
}

}  // namespace Harvane::RT::Core
