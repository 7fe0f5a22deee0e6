#include <cmath>
#include <functional>

#include "host/coretypes/value_impl.h"

namespace Harvane::RT::Core {
namespace {

class IntImpl final : public ValueImpl<IIntObject, CoreType::Int> {
public:
    explicit IntImpl(int64_t value) : value_(value) {}

    ErrCode getValue(int64_t* value) override {
        if (value == nullptr)
            return Errors::ArgumentNull;
        *value = value_;
        return Errors::Success;
    }
    ErrCode getHashCode(size_t* hash) override {
        if (hash == nullptr)
            return Errors::ArgumentNull;
        *hash = std::hash<int64_t>()(value_);
        return Errors::Success;
    }

protected:
    bool readBool(bool& value) const override { return value = value_ != 0, true; }
    bool readInt(int64_t& value) const override { return value = value_, true; }
    bool readFloat(double& value) const override { return value = static_cast<double>(value_), true; }
    bool readRatio(Ratio& value) const override { return value = {value_, 1}, true; }
    std::string text() const override { return std::to_string(value_); }
    bool compare(IBaseObject* other, int& result) const override {
        IIntObject* number = same(other);
        int64_t value = 0;
        if (number == nullptr || failed(number->getValue(&value)))
            return false;
        result = order(value_, value);
        return true;
    }

private:
    int64_t value_;
};

class FloatImpl final : public ValueImpl<IFloatObject, CoreType::Float> {
public:
    explicit FloatImpl(double value) : value_(value) {}

    ErrCode getValue(double* value) override {
        if (value == nullptr)
            return Errors::ArgumentNull;
        *value = value_;
        return Errors::Success;
    }
    ErrCode getHashCode(size_t* hash) override {
        if (hash == nullptr)
            return Errors::ArgumentNull;
        *hash = std::isnan(value_) ? 1 : std::hash<double>()(value_);
        return Errors::Success;
    }

protected:
    bool readBool(bool& value) const override { return value = value_ != 0.0, !std::isnan(value_); }
    bool readInt(int64_t& value) const override { return Conversions::floatToInt(value_, value); }
    bool readFloat(double& value) const override { return value = value_, true; }
    bool readRatio(Ratio& value) const override { return Conversions::floatToRatio(value_, value); }
    std::string text() const override { return Conversions::formatFloat(value_); }
    // All NaNs are equal and stand before the numbers, so that they can be sorted and be keys.
    bool compare(IBaseObject* other, int& result) const override {
        IFloatObject* number = same(other);
        double value = 0.0;
        if (number == nullptr || failed(number->getValue(&value)))
            return false;
        if (std::isnan(value_) || std::isnan(value))
            result = (std::isnan(value) ? 1 : 0) - (std::isnan(value_) ? 1 : 0);
        else
            result = order(value_, value);
        return true;
    }

private:
    double value_;
};

class BoolImpl final : public ValueImpl<IBoolObject, CoreType::Bool> {
public:
    explicit BoolImpl(bool value) : value_(value) {}

    ErrCode getValue(unsigned char* value) override {
        if (value == nullptr)
            return Errors::ArgumentNull;
        *value = value_ ? 1 : 0;
        return Errors::Success;
    }
    ErrCode getHashCode(size_t* hash) override {
        if (hash == nullptr)
            return Errors::ArgumentNull;
        *hash = value_ ? 1 : 0;
        return Errors::Success;
    }

protected:
    bool readBool(bool& value) const override { return value = value_, true; }
    bool readInt(int64_t& value) const override { return value = value_ ? 1 : 0, true; }
    bool readFloat(double& value) const override { return value = value_ ? 1.0 : 0.0, true; }
    bool readRatio(Ratio& value) const override { return value = {value_ ? 1 : 0, 1}, true; }
    std::string text() const override { return value_ ? "true" : "false"; }
    bool compare(IBaseObject* other, int& result) const override {
        IBoolObject* flag = same(other);
        unsigned char value = 0;
        if (flag == nullptr || failed(flag->getValue(&value)))
            return false;
        result = (value_ ? 1 : 0) - (value != 0 ? 1 : 0);
        return true;
    }

private:
    bool value_;
};

class RatioImpl final : public ValueImpl<IRatio, CoreType::Ratio> {
public:
    RatioImpl(int64_t numerator, int64_t denominator) : value_{numerator, denominator} {}

    ErrCode getNumerator(int64_t* numerator) override {
        if (numerator == nullptr)
            return Errors::ArgumentNull;
        *numerator = value_.numerator;
        return Errors::Success;
    }
    ErrCode getDenominator(int64_t* denominator) override {
        if (denominator == nullptr)
            return Errors::ArgumentNull;
        *denominator = value_.denominator;
        return Errors::Success;
    }
    ErrCode getHashCode(size_t* hash) override {
        if (hash == nullptr)
            return Errors::ArgumentNull;
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
            failed(ratio->getDenominator(&value.denominator)))
            return false;
        result = Conversions::compareRatios(value_, value);
        return true;
    }

private:
    Ratio value_;
};

}  // namespace

ErrCode createIntObject(IIntObject** object, int64_t value) { return createObject<IntImpl>(object, value); }
ErrCode createFloatObject(IFloatObject** object, double value) { return createObject<FloatImpl>(object, value); }
ErrCode createBoolObject(IBoolObject** object, unsigned char value) {
    return createObject<BoolImpl>(object, value != 0);
}
ErrCode createRatio(IRatio** object, int64_t numerator, int64_t denominator) {
    if (object == nullptr)
        return Errors::ArgumentNull;
    if (denominator == 0)
        return makeError(Errors::InvalidParameter, "The denominator of a ratio can't be 0");
    return createObject<RatioImpl>(object, numerator, denominator);
}

}  // namespace Harvane::RT::Core
