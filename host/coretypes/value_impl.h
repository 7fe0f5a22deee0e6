#pragma once

#include <string>

#include <zorn/types/object_impl.h>
#include <zorn/types/values.h>

#include "host/coretypes/conversions.h"

namespace Harvane::RT::Core {

// What the plain values have in common: core type, text form and conversion by way of the readers below.
template <class I, CoreType Type>
class ValueImpl : public ObjectImpl<I, ICoreType, IComparable, IConvertible> {
public:
    ErrCode getCoreType(CoreType* type) override { return handOut(Type, type); }

    ErrCode toBool(unsigned char* value) override {
        bool result = false;
        return read(value, result, readBool(result), "truth value");
    }
    ErrCode toInt(int64_t* value) override {
        int64_t result = 0;
        return read(value, result, readInt(result), "integer");
    }
    ErrCode toFloat(double* value) override {
        double result = 0.0;
        return read(value, result, readFloat(result), "number");
    }

    ErrCode convertTo(CoreType type, IBaseObject** value) override {
        if (value == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *value = nullptr;
        if (type == Type || type == CoreType::Object || type == CoreType::Undefined) {
            this->addRef();
            *value = this->self();
            return Errors::Success;
        }
        return wrapHandler([&]() -> ErrCode {
            switch (type) {
                case CoreType::Bool: {
                    bool result = false;
                    return readBool(result) ? give(toValue(result), value) : refuse("truth value");
                }
                case CoreType::Int:
                case CoreType::Enum: {
                    int64_t result = 0;
                    return readInt(result) ? give(toValue(result), value) : refuse("integer");
                }
                case CoreType::Float: {
                    double result = 0.0;
                    return readFloat(result) ? give(toValue(result), value) : refuse("number");
                }
                case CoreType::Ratio: {
                    Ratio result;
                    return readRatio(result) ? give(toValue(result), value) : refuse("ratio");
                }
                case CoreType::String:
                    return give(toValue(text()), value);
                default:
                    return refuse("value of this type");
            }
        });
    }

    ErrCode toString(char** result) override {
        if (result == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&]() -> ErrCode {
            const std::string form = text();
            return zornDuplicateCharPtrN(result, form.data(), form.size());
        });
    }

    ErrCode equals(IBaseObject* other, unsigned char* equal) override {
        if (equal == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        int order = 1;
        *equal = other != nullptr && compare(other, order) && order == 0 ? 1 : 0;
        return Errors::Success;
    }

    ErrCode compareTo(IBaseObject* other, int* result) override {
        if (other == nullptr || result == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        if (!compare(other, *result)) {
            return plainError(Errors::InvalidType);
        }
        return Errors::Success;
    }

protected:
    virtual bool readBool(bool& value) const = 0;
    virtual bool readInt(int64_t& value) const = 0;
    virtual bool readFloat(double& value) const = 0;
    virtual bool readRatio(Ratio& value) const = 0;
    virtual std::string text() const = 0;
    // False for an object of another kind.
    virtual bool compare(IBaseObject* other, int& order) const = 0;

    template <class T>
    static int order(const T& left, const T& right) {
        return left < right ? -1 : right < left ? 1 : 0;
    }

    // The interface of another object of the same kind, without a reference.
    static I* same(IBaseObject* other) {
        void* found = nullptr;
        return succeeded(other->borrowInterface(I::Id, &found)) ? static_cast<I*>(found) : nullptr;
    }

    // The value of another object of the same kind; false for any other.
    template <class T>
    static bool valueOf(IBaseObject* other, T& value) {
        I* object = same(other);
        return object != nullptr && succeeded(object->getValue(&value));
    }

private:
    static ErrCode give(BasePtr made, IBaseObject** value) {
        *value = made.detach();
        return Errors::Success;
    }

    ErrCode refuse(const char* kind) {
        return makeError(Errors::ConversionFailed, ("\"" + text() + "\" can't be read as a " + kind).c_str());
    }

    template <class Out, class T>
    ErrCode read(Out* out, const T& result, bool good, const char* kind) {
        if (out == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        if (!good) {
            return wrapHandler([&]() -> ErrCode { return refuse(kind); });
        }
        *out = static_cast<Out>(result);
        return Errors::Success;
    }
};

}  // namespace Harvane::RT::Core
