#include <vector>

#include <zorn/objects/property_object_impl.h>

namespace Harvane::RT::Core {
namespace {

struct ConfigurationRule {
    ConfigurationMode mode;
    PropertyState states;
    ConfigurationAction action;
};

class PropertyInfoImpl final : public ObjectImpl<IPropertyInfo> {
public:
    PropertyInfoImpl(IString* name, CoreType type) : name_(name), type_(type) {}

    ErrCode getName(IString** name) override { return handOut(name_, name); }
    ErrCode setName(IString* name) override { return assign(name_, StringPtr(name)); }
    ErrCode getValueType(CoreType* type) override { return handOut(type_, type); }
    ErrCode setValueType(CoreType type) override { return assign(type_, type); }

    ErrCode getDefaultValue(IBaseObject** value) override { return handOut(defaultValue_, value); }
    ErrCode setDefaultValue(IBaseObject* value) override { return assign(defaultValue_, BasePtr(value)); }
    ErrCode getValues(IBaseObject** values) override { return handOut(values_, values); }
    ErrCode setValues(IBaseObject* values) override { return assign(values_, BasePtr(values)); }
    ErrCode getUnit(IBaseObject** unit) override { return handOut(unit_, unit); }
    ErrCode setUnit(IBaseObject* unit) override { return assign(unit_, BasePtr(unit)); }
    ErrCode getMinValue(IBaseObject** value) override { return handOut(minValue_, value); }
    ErrCode setMinValue(IBaseObject* value) override { return assign(minValue_, BasePtr(value)); }
    ErrCode getMaxValue(IBaseObject** value) override { return handOut(maxValue_, value); }
    ErrCode setMaxValue(IBaseObject* value) override { return assign(maxValue_, BasePtr(value)); }
    ErrCode getReadOnly(IBaseObject** value) override { return handOut(readOnly_, value); }
    ErrCode setReadOnly(IBaseObject* value) override { return assign(readOnly_, BasePtr(value)); }
    ErrCode getReadOnlyValue(IBaseObject** value) override { return handOut(readOnlyValue_, value); }
    ErrCode setReadOnlyValue(IBaseObject* value) override { return assign(readOnlyValue_, BasePtr(value)); }
    ErrCode getEnabled(IBaseObject** value) override { return handOut(enabled_, value); }
    ErrCode setEnabled(IBaseObject* value) override { return assign(enabled_, BasePtr(value)); }
    ErrCode getVisible(IBaseObject** value) override { return handOut(visible_, value); }
    ErrCode setVisible(IBaseObject* value) override { return assign(visible_, BasePtr(value)); }
    ErrCode getReference(IBaseObject** reference) override { return handOut(reference_, reference); }
    ErrCode setReference(IBaseObject* reference) override { return assign(reference_, BasePtr(reference)); }

    ErrCode getHidden(unsigned char* hidden) override { return handOut(hidden_, hidden); }
    ErrCode setHidden(unsigned char hidden) override {
        return assign(hidden_, static_cast<unsigned char>(hidden != 0));
    }
    ErrCode getSelection(unsigned char* selection) override { return handOut(selection_, selection); }
    ErrCode setSelection(unsigned char selection) override {
        return assign(selection_, static_cast<unsigned char>(selection != 0));
    }
    ErrCode getIndex(int32_t* index) override { return handOut(index_, index); }
    ErrCode setIndex(int32_t index) override {
        if (frozen_ && index_ != -1) {
            return refuseFrozen();
        }
        index_ = index;
        return Errors::Success;
    }

    ErrCode getOnReadValue(IFuncObject** function) override { return handOut(onRead_, function); }
    ErrCode setOnReadValue(IFuncObject* function) override { return assign(onRead_, ObjectPtr<IFuncObject>(function)); }
    ErrCode getOnWriteValue(IFuncObject** function) override { return handOut(onWrite_, function); }
    ErrCode setOnWriteValue(IFuncObject* function) override {
        return assign(onWrite_, ObjectPtr<IFuncObject>(function));
    }
    // Handlers may come at any time; the event itself is no attribute that freezing could protect.
    ErrCode getOnValueChanged(IEvent** event) override {
        if (event == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        if (!onChanged_) {
            IEvent* made = nullptr;
            if (const ErrCode code = createEvent(&made); failed(code)) {
                return code;
            }
            onChanged_ = ObjectPtr<IEvent>::take(made);
        }
        return handOut(onChanged_, event);
    }
    ErrCode setOnValueChanged(IEvent* event) override { return assign(onChanged_, ObjectPtr<IEvent>(event)); }

    ErrCode setConfigurationAction(ConfigurationMode mode, PropertyState states, ConfigurationAction action) override {
        if (frozen_) {
            return refuseFrozen();
        }
        if (action < ConfigurationAction::Leave || action > ConfigurationAction::TakeOver) {
            return makeError(Errors::InvalidParameter, "Unknown configuration action");
        }
        return wrapHandler([&] { rules_.push_back({mode, states, action}); });
    }
    ErrCode getConfigurationAction(ConfigurationMode mode, PropertyState state, ConfigurationAction* action) override {
        if (action == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        for (auto rule = rules_.rbegin(); rule != rules_.rend(); ++rule) {
            if ((rule->mode & mode) != 0 && (rule->states & state) != 0) {
                *action = rule->action;
                return Errors::Success;
            }
        }
        *action = state != 1 && isPlain() ? ConfigurationAction::TakeOver : ConfigurationAction::Leave;
        return Errors::Success;
    }
    ErrCode copyConfigurationActions(IPropertyInfo* other) override {
        if (other == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        if (frozen_) {
            return refuseFrozen();
        }
        return wrapHandler([&] {
            if (auto* same = dynamic_cast<PropertyInfoImpl*>(other)) {
                rules_ = same->rules_;
                return;
            }
            // Another implementation: ask for each combination of one mode and one state.
            std::vector<ConfigurationRule> rules;
            for (const ConfigurationMode mode : {1, 2}) {
                for (const PropertyState state : {1, 2, 4}) {
                    ConfigurationAction action{};
                    checkErrorInfo(other->getConfigurationAction(mode, state, &action));
                    rules.push_back({mode, state, action});
                }
            }
            rules_ = std::move(rules);
        });
    }

    ErrCode freeze() override {
        frozen_ = true;
        return Errors::Success;
    }
    ErrCode isFrozen(unsigned char* frozen) override { return handOut(frozen_ ? 1 : 0, frozen); }

    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull) : zornDuplicateCharPtr(text, "PropertyInfo");
    }

private:
    // Values that a setup may write without being told so: nothing that the program itself builds or computes.
    bool isPlain() const {
        if (reference_) {
            return false;
        }
        if (readOnly_) {
            // An expression may turn true; only a plain false leaves the property open.
            auto* flag = borrow<IBoolObject>(readOnly_.get());
            unsigned char readOnly = 1;
            if (flag == nullptr || failed(flag->getValue(&readOnly)) || readOnly != 0) {
                return false;
            }
        }
        switch (type_) {
            case CoreType::Bool:
            case CoreType::Int:
            case CoreType::Float:
            case CoreType::String:
            case CoreType::List:
            case CoreType::Ratio:
            case CoreType::Enum:
                return true;
            default:
                return false;
        }
    }

    static ErrCode refuseFrozen() { return plainError(Errors::Frozen); }
    template <class T>
    ErrCode assign(T& field, T value) {
        if (frozen_) {
            return refuseFrozen();
        }
        std::swap(field, value);
        return Errors::Success;
    }
    StringPtr name_;
    CoreType type_;
    BasePtr defaultValue_;
    BasePtr values_;
    BasePtr unit_;
    BasePtr minValue_;
    BasePtr maxValue_;
    BasePtr readOnly_;
    BasePtr readOnlyValue_;
    BasePtr enabled_;
    BasePtr visible_;
    BasePtr reference_;
    ObjectPtr<IFuncObject> onRead_;
    ObjectPtr<IFuncObject> onWrite_;
    ObjectPtr<IEvent> onChanged_;
    std::vector<ConfigurationRule> rules_;
    int32_t index_ = -1;
    unsigned char hidden_ = 0;
    unsigned char selection_ = 0;
    bool frozen_ = false;
};

}  // namespace

ErrCode createPropertyInfo(IPropertyInfo** object, IString* name, CoreType type) {
    return createObject<PropertyInfoImpl>(object, name, type);
}

}  // namespace Harvane::RT::Core
