#include <functional>
#include <string>

#include "host/coretypes/value_impl.h"

namespace Harvane::RT::Core {
namespace {

class StringImpl final : public ValueImpl<IString, CoreType::String> {
public:
    StringImpl(const char* text, size_t length) : text_(text, length) {}

    ErrCode getLength(size_t* length) override { return handOut(text_.size(), length); }
    ErrCode getCharPtr(const char** text) override { return handOut(text_.c_str(), text); }
    ErrCode getHashCode(size_t* hash) override { return handOut(std::hash<std::string_view>()(text_), hash); }

protected:
    bool readBool(bool& value) const override { return Conversions::parseBool(text_, value); }
    bool readInt(int64_t& value) const override { return Conversions::parseInt(text_, value); }
    bool readFloat(double& value) const override { return Conversions::parseFloat(text_, value); }
    bool readRatio(Ratio& value) const override { return Conversions::parseRatio(text_, value); }
    std::string text() const override { return text_; }
    bool compare(IBaseObject* other, int& result) const override {
        IString* string = same(other);
        const char* text = nullptr;
        size_t length = 0;
        if (string == nullptr || failed(string->getCharPtr(&text)) || failed(string->getLength(&length))) {
            return false;
        }
        result = std::string_view(text_).compare(std::string_view(text, length));
        return true;
    }

private:
    std::string text_;
};

}  // namespace

ErrCode createStringN(IString** object, const char* text, size_t length) {
    if (object == nullptr || (text == nullptr && length != 0)) {
        return plainError(Errors::ArgumentNull);
    }
    return createObject<StringImpl>(object, text == nullptr ? "" : text, length);
}

ErrCode createString(IString** object, const char* text) {
    return text == nullptr ? plainError(Errors::ArgumentNull) : createStringN(object, text, std::strlen(text));
}

}  // namespace Harvane::RT::Core
