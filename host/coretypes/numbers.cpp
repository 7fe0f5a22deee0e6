#include <cmath>
#include <functional>

#include "host/coretypes/value_impl.h"

namespace Harvane::RT::Core {
namespace {

// Integers and truth values.
template <class I, CoreType Type, class T>
class IntegralImpl final : public ValueImpl<I, Type> {
public:
    explicit IntegralImpl(T value) : value_(value) {}

    ErrCode getValue(T* value) override { return handOut(value_, value); }
    ErrCode getHashCode(size_t* hash) override { return handOut(static_cast<size_t>(value_), hash); }

protected:
    bool readBool(bool& value) const override { return value = value_ != 0, true; }
    bool readInt(int64_t& value) const override { return value = value_, true; }
    bool readFloat(double& value) const override { return value = static_cast<double>(value_), true; }
    bool readRatio(Ratio& value) const override { return value = {value_, 1}, true; }
    std::string text() const override {
        if constexpr (Type == CoreType::Bool) {
            return value_ != 0 ? "true" : "false";
        } else {
            return std::to_string(value_);
        }
    }
    bool compare(IBaseObject* other, int& result) const override {
        T value = 0;
        if (!this->valueOf(other, value)) {
            return false;
        }
        result = this->order(value_, value);
        return true;
    }

private:
    T value_;
};
using IntImpl = IntegralImpl<IIntObject, CoreType::Int, int64_t>;
using BoolImpl = IntegralImpl<IBoolObject, CoreType::Bool, unsigned char>;

class FloatImpl final : public ValueImpl<IFloatObject, CoreType::Float> {
public:
    explicit FloatImpl(double value) : value_(value) {}

    ErrCode getValue(double* value) override { return handOut(value_, value); }
    ErrCode getHashCode(size_t* hash) override {
        return handOut(std::isnan(value_) ? 1 : std::hash<double>()(value_), hash);
    }

protected:
    bool readBool(bool& value) const override { return value = value_ != 0.0, !std::isnan(value_); }
    bool readInt(int64_t& value) const override { return Conversions::floatToInt(value_, value); }
    bool readFloat(double& value) const override { return value = value_, true; }
    bool readRatio(Ratio& value) const override { return Conversions::floatToRatio(value_, value); }
    std::string text() const override { return Conversions::formatFloat(value_); }
    // All NaNs are equal and stand before the numbers, so that they can be sorted and be keys.
    bool compare(IBaseObject* other, int& result) const override {
        double value = 0.0;
        if (!valueOf(other, value)) {
            return false;
        }
        if (std::isnan(value_) || std::isnan(value)) {
            result = (std::isnan(value) ? 1 : 0) - (std::isnan(value_) ? 1 : 0);
        } else {
            result = order(value_, value);
        }
        return true;
    }

private:
    double value_;
};

class RatioImpl final : public ValueImpl<IRatio, CoreType::Ratio> {
public:
    RatioImpl(int64_t numerator, int64_t denominator) : value_{numerator, denominator} {}

    ErrCode getNumerator(int64_t* numerator) override { return handOut(value_.numerator, numerator); }
    ErrCode getDenominator(int64_t* denominator) override { return handOut(value_.denominator, denominator); }
    ErrCode getHashCode(size_t* hash) override {
        if (hash == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        const Ratio plain = Conversions::reduced(value_);
        *hash = std::hash<int64_t>()(plain.numerator) * 31 + std::hash<int64_t>()(plain.denominator);
        return Errors::Success;
    }

protected:
    bool readBool(bool& value) const override { return value = value_.numerator != 0, true; }
    bool readInt(int64_t& value) const override { return Conversions::ratioToInt(value_, value); }
    bool readFloat(double& value) const override { return value = Conversions::ratioToFloat(value_), true; }
    bool readRatio(Ratio& value) const override { return value = value_, true; }
    std::string text() const override { return Conversions::formatRatio(value_); }
    bool compare(IBaseObject* other, int& result) const override {
        IRatio* ratio = same(other);
        Ratio value;
        if (ratio == nullptr || failed(ratio->getNumerator(&value.numerator)) ||
            failed(ratio->getDenominator(&value.denominator))) {
            return false;
        }
        result = Conversions::compareRatios(value_, value);
        return true;
    }

private:
    Ratio value_;
};

}  // namespace

ErrCode createIntObject(IIntObject** object, int64_t value) {
    return createObject<IntImpl>(object, value);
}
ErrCode createFloatObject(IFloatObject** object, double value) {
    return createObject<FloatImpl>(object, value);
}
ErrCode createBoolObject(IBoolObject** object, unsigned char value) {
    return createObject<BoolImpl>(object, value != 0 ? 1 : 0);
}
ErrCode createRatio(IRatio** object, int64_t numerator, int64_t denominator) {
    if (object == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    if (denominator == 0) {
        return makeError(Errors::InvalidParameter, "The denominator of a ratio can't be 0");
    }
    return createObject<RatioImpl>(object, numerator, denominator);
}

}  // namespace Harvane::RT::Core
