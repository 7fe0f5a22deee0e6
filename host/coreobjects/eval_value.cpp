#include <memory>
#include <optional>
#include <string>

#include <zorn/objects/property_object_impl.h>

#include "host/coreobjects/class_form.h"
#include "host/coreobjects/eval_tree.h"

namespace Harvane::RT::Core {
namespace {

constexpr int maxNesting = 32;  // evaluations within each other on one thread
thread_local int nesting = 0;

// A number as the expressions see it: integers stay integers, truth values count as 0 and 1.
struct Number {
    bool isFloat = false;
    int64_t integer = 0;
    double real = 0.0;
    double asFloat() const { return isFloat ? real : static_cast<double>(integer); }
};

class Evaluator {
public:
    Evaluator(IPropertyObject* object, const StringPtr& expression) : object_(object), expression_(expression) {}

    BasePtr evaluate(const EvalNode& node) {
        switch (node.kind) {
            case EvalKind::Literal:
                return node.literal;
            case EvalKind::Value:
                return value(node);
            case EvalKind::Property:
                return property(node.name.view());
            case EvalKind::Or:
            case EvalKind::And: {
                const bool deciding = node.kind == EvalKind::Or;
                for (const EvalNode& operand : node.operands) {
                    if (truth(evaluate(operand)) == deciding) {
                        return toValue(deciding);
                    }
                }
                return toValue(!deciding);
            }
            case EvalKind::Compare:
                return toValue(compare(evaluate(node.operands[0]), node.operators[0], evaluate(node.operands[1])));
            case EvalKind::Sum:
            case EvalKind::Product: {
                BasePtr result = evaluate(node.operands[0]);
                for (size_t i = 1; i < node.operands.size(); ++i) {
                    result = calculate(result, node.operators[i - 1], evaluate(node.operands[i]));
                }
                return result;
            }
            case EvalKind::Not:
                return toValue(!truth(evaluate(node.operands[0])));
            case EvalKind::Negate:
                return calculate(toValue(0), EvalOperator::Minus, evaluate(node.operands[0]), true);
            case EvalKind::Switch:
                return select(node);
            case EvalKind::If:
                return evaluate(node.operands[truth(evaluate(node.operands[0])) ? 1 : 2]);
            case EvalKind::Min:
            case EvalKind::Max:
                return extreme(node);
        }
        return {};
    }

private:
    [[noreturn]] void fail(const char* reason) const {
        throw CalcFailedException("\"%.200s\": %s", expression_.toStdString().c_str(), reason);
    }

    BasePtr read(IString* name) {
        IBaseObject* raw = nullptr;
        checkErrorInfo(object_->getProperty(name, &raw));
        BasePtr result = BasePtr::take(raw);
        // A property may hold an expression as its value; here only its result makes sense.
        if (auto* inner = borrow<IEvalValue>(result.get())) {
            IEvalValue* bound = nullptr;
            checkErrorInfo(inner->bind(object_, &bound));
            const auto holder = ObjectPtr<IEvalValue>::take(bound);
            raw = nullptr;
            checkErrorInfo(bound->getResult(&raw));
            result = BasePtr::take(raw);
        }
        return result;
    }

    BasePtr value(const EvalNode& node) {
        if (node.operands.empty()) {
            return read(node.name.get());
        }
        const auto index = number(evaluate(node.operands[0]));
        if (!index || index->isFloat || index->integer < 0) {
            fail("an index must be an integer of 0 or more");
        }
        const StringPtr name(node.name.toStdString() + "[" + std::to_string(index->integer) + "]");
        return read(name.get());
    }

    // The property itself, as it was registered. Empty when there is none.
    BasePtr property(std::string_view name) {
        ObjectPtr<IPropertyObject> holder(object_);
        if (const size_t dot = name.rfind('.'); dot != std::string_view::npos) {
            const BasePtr parent = read(StringPtr(name.substr(0, dot)).get());
            holder = parent ? parent.asPtrOrNull<IPropertyObject>() : ObjectPtr<IPropertyObject>();
            name.remove_prefix(dot + 1);
        }
        IPropertyInfo* info = nullptr;
        if (auto* lookup = borrow<IPropertyInfoLookup>(holder.get())) {
            checkErrorInfo(lookup->findPropertyInfo(StringPtr(name).get(), &info));
        }
        return BasePtr::take(info);
    }

    static std::optional<Number> number(const BasePtr& value) {
        if (!value) {
            return {};
        }
        switch (coreTypeOf(value)) {
            case CoreType::Bool:
                return Number{false, fromValue<bool>(value) ? 1 : 0, 0.0};
            case CoreType::Int:
                return Number{false, fromValue<int64_t>(value), 0.0};
            case CoreType::Float:
            case CoreType::Ratio:
                return Number{true, 0, fromValue<double>(value)};
            default:
                return {};
        }
    }
    Number requireNumber(const BasePtr& value, const char* reason) const {
        const auto result = number(value);
        if (!result) {
            fail(value ? reason : "a value is missing");
        }
        return *result;
    }
    bool truth(const BasePtr& value) const {
        const Number flag = requireNumber(value, "the condition is no truth value");
        return flag.isFloat ? flag.real != 0.0 : flag.integer != 0;
    }

    static bool equal(const BasePtr& left, const BasePtr& right) {
        const auto a = number(left);
        const auto b = number(right);
        if (a && b) {
            return a->isFloat || b->isFloat ? a->asFloat() == b->asFloat() : a->integer == b->integer;
        }
        return left.equals(right);
    }

    bool compare(const BasePtr& left, EvalOperator operation, const BasePtr& right) const {
        if (operation == EvalOperator::Equal) {
            return equal(left, right);
        }
        if (operation == EvalOperator::NotEqual) {
            return !equal(left, right);
        }
        const Number a = requireNumber(left, "only numbers have an order");
        const Number b = requireNumber(right, "only numbers have an order");
        const auto ordered = [operation](const auto& x, const auto& y) {
            switch (operation) {
                case EvalOperator::Less:
                    return x < y;
                case EvalOperator::LessEqual:
                    return x <= y;
                case EvalOperator::Greater:
                    return x > y;
                default:
                    return x >= y;
            }
        };
        return a.isFloat || b.isFloat ? ordered(a.asFloat(), b.asFloat()) : ordered(a.integer, b.integer);
    }

    // `negation`: 0 - x, for which the sign of a floating zero counts.
    BasePtr calculate(const BasePtr& left, EvalOperator operation, const BasePtr& right, bool negation = false) const {
        if (operation == EvalOperator::Plus && coreTypeOfAny(left) == CoreType::String &&
            coreTypeOfAny(right) == CoreType::String) {
            return toValue(fromValue<std::string>(left) + fromValue<std::string>(right));
        }
        const Number a = requireNumber(left, "only numbers can be calculated with");
        const Number b = requireNumber(right, "only numbers can be calculated with");
        if (a.isFloat || b.isFloat) {
            const double x = a.asFloat();
            const double y = b.asFloat();
            switch (operation) {
                case EvalOperator::Plus:
                    return toValue(x + y);
                case EvalOperator::Minus:
                    return toValue(negation ? -y : x - y);
                case EvalOperator::Times:
                    return toValue(x * y);
                default:
                    if (y == 0.0) {
                        fail("division by zero");
                    }
                    return toValue(x / y);
            }
        }
        int64_t result = 0;
        bool overflow = false;
        switch (operation) {
            case EvalOperator::Plus:
                overflow = __builtin_add_overflow(a.integer, b.integer, &result);
                break;
            case EvalOperator::Minus:
                overflow = __builtin_sub_overflow(a.integer, b.integer, &result);
                break;
            case EvalOperator::Times:
                overflow = __builtin_mul_overflow(a.integer, b.integer, &result);
                break;
            default:
                if (b.integer == 0) {
                    fail("division by zero");
                }
                overflow = a.integer == INT64_MIN && b.integer == -1;
                result = overflow ? 0 : a.integer / b.integer;
        }
        if (overflow) {
            fail("the integer result is too large");
        }
        return toValue(result);
    }
    static CoreType coreTypeOfAny(const BasePtr& value) { return value ? coreTypeOf(value) : CoreType::Undefined; }

    // Only the branch that is taken is evaluated.
    BasePtr select(const EvalNode& node) {
        const BasePtr key = evaluate(node.operands[0]);
        size_t i = 1;
        for (; i + 1 < node.operands.size(); i += 2) {
            if (equal(key, evaluate(node.operands[i]))) {
                return evaluate(node.operands[i + 1]);
            }
        }
        return i < node.operands.size() ? evaluate(node.operands[i]) : BasePtr();
    }

    BasePtr extreme(const EvalNode& node) {
        BasePtr result;
        for (const EvalNode& operand : node.operands) {
            const BasePtr candidate = evaluate(operand);
            requireNumber(candidate, "min and max take numbers");
            const auto better = node.kind == EvalKind::Min ? EvalOperator::Less : EvalOperator::Greater;
            if (!result || compare(candidate, better, result)) {
                result = candidate;
            }
        }
        return result;
    }

    IPropertyObject* object_;
    const StringPtr& expression_;
};

// Read once, never changed, shared by all bound copies.
struct EvalTree {
    StringPtr expression;
    EvalNode root;
};

class EvalValueImpl final : public ObjectImpl<IEvalValue, ISerializable> {
public:
    explicit EvalValueImpl(std::string_view expression)
        : tree_(std::make_shared<const EvalTree>(EvalTree{StringPtr(expression), parseEval(expression)})) {}
    EvalValueImpl(std::shared_ptr<const EvalTree> tree, IPropertyObject* object)
        : tree_(std::move(tree)), object_(object) {}

    ErrCode getExpression(IString** expression) override { return handOut(tree_->expression, expression); }
    ErrCode bind(IPropertyObject* object, IEvalValue** bound) override {
        if (object == nullptr || bound == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return createObject<EvalValueImpl>(bound, tree_, object);
    }
    ErrCode getResult(IBaseObject** result) override {
        if (result == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *result = nullptr;
        return wrapHandler([&] {
            if (!object_) {
                throw InvalidStateException("The expression \"%s\" is not bound to an object",
                                            tree_->expression.toStdString().c_str());
            }
            const Nesting level;
            if (nesting > maxNesting) {
                throw CalcFailedException("\"%s\": the expressions are nested too deeply, they seem to need each other",
                                          tree_->expression.toStdString().c_str());
            }
            *result = Evaluator(object_.get(), tree_->expression).evaluate(tree_->root).detach();
        });
    }

    ErrCode serialize(ISerializer* serializer) override {
        if (serializer == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] {
            checkErrorInfo(serializer->startObject());
            checkErrorInfo(serializer->key("__type"));
            checkErrorInfo(serializer->writeString(EvalFormId));
            checkErrorInfo(serializer->key("expr"));
            checkErrorInfo(serializer->writeString(tree_->expression.toStdString().c_str()));
            checkErrorInfo(serializer->endObject());
        });
    }
    ErrCode getSerializeId(const char** id) override { return handOut(EvalFormId, id); }
    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull)
                               : zornDuplicateCharPtr(text, tree_->expression.toStdString().c_str());
    }

private:
    struct Nesting {
        Nesting() { ++nesting; }
        ~Nesting() { --nesting; }
    };

    std::shared_ptr<const EvalTree> tree_;
    ObjectPtr<IPropertyObject> object_;
};

}  // namespace

ErrCode createEvalValue(IEvalValue** object, const char* expression) {
    if (object == nullptr || expression == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *object = nullptr;
    return createObject<EvalValueImpl>(object, std::string_view(expression));
}

}  // namespace Harvane::RT::Core
