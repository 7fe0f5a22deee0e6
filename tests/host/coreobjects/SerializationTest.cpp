#include "tests/host/coreobjects/Objects.h"

#include <limits>
#include <vector>

#include <zorn/objects/property_object_impl.h>
#include <zorn/structure/property_classes.h>

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

namespace {

// An amplifier definition as it stands in a file: two measurements with lists of their own.
const char* const definition = R"json({"__type": "PropertyObjectClass", "name": "ampl_vb2", "properties": [
  {"name": "ModuleName", "type": "string", "default": "", "readOnly": true, "readOnlyValue": "VB-2"},
  {"name": "AmplifierID", "type": "string", "default": "", "readOnly": true, "readOnlyValue": "21.3.1.2"},
  {"name": "Measurement", "type": "int", "selection": true, "default": 0, "values": ["Voltage", "Bridge"]},
  {"name": "Range", "type": "reference",
   "reference": {"__type": "Eval", "expr": "switch($Measurement, 0, %VoltageRange, 1, %BridgeRange)"}},
  {"name": "VoltageRange", "type": "int", "selection": true, "default": 0, "unit": "V", "enabled": true,
   "visible": true, "hidden": true, "values": [
    {"className": "RangeItem", "propValues": {"DisplayName": "10", "Min": -10.0, "Max": 10.0}},
    {"className": "RangeItem", "propValues": {"DisplayName": "1", "Min": -1.0, "Max": 1.0}},
    {"className": "RangeItem", "propValues": {"DisplayName": "0.1", "Min": -0.1, "Max": 0.1}}]},
  {"name": "BridgeRange", "type": "int", "selection": true, "default": 0, "unit": "mV/V", "enabled": true,
   "visible": true, "hidden": true, "values": [
    {"className": "RangeItem", "propValues": {"DisplayName": "20", "Min": -20.0, "Max": 20.0}},
    {"className": "RangeItem", "propValues": {"DisplayName": "2", "Min": -2.0, "Max": 2.0}}]},
  {"name": "HPFilter", "type": "int", "selection": true, "default": 0,
   "values": {"__type": "Eval", "expr": "switch($Measurement, 0, $VoltageCouplings, 1, $BridgeCouplings)"}},
  {"name": "VoltageCouplings", "type": "list", "default": ["DC", "AC 1 Hz"], "hidden": true},
  {"name": "BridgeCouplings", "type": "list", "default": ["DC"], "hidden": true},
  {"name": "BridgeType", "type": "int", "selection": true, "default": 0, "values": ["Full", "Half"],
   "visible": {"__type": "Eval", "expr": "$Measurement == 1"}},
  {"name": "Excitation", "type": "int", "selection": true, "default": 1, "unit": "V", "values": [2.5, 5.0]},
  {"name": "DeviceRanges", "type": "float", "default": 0.1, "values": [0.1, 0.01], "hidden": true},
  {"name": "StartSensorBalance", "type": "proc"}, {"name": "GetSensorBalanceStatus", "type": "func"}]})json";

class Definition {
public:
    Definition() : objectClass(deserialized(definition).asPtr<IPropertyObjectClass>()) {
        objectClass.setParent(ChannelPropertyClass::ClassName);
        PropertyObjectManagerPtr::create().addClass(objectClass);
    }
    ~Definition() { PropertyObjectManagerPtr::create().removeClass("ampl_vb2"); }
    PropertyObjectClassPtr objectClass;
};

std::string propertyForm(const std::string& attributes) {
    return R"({"__type": "PropertyObjectClass", "name": "c", "properties": [{"name": "A", "type": "int"}, {)" +
           attributes + "}]}";
}

}  // namespace

TEST(Serialization, keysAreSortedAndValuesComeBack) {
    const auto object = makeObject("RangeItem");
    object.setPropertyValue("Min", -1);
    object.setPropertyValue("DisplayName", "1 V \"x\" \xC3\xA4");
    object.setPropertyValue("B", true);
    object.setPropertyValue("Z", ListPtr::create({toValue(1), asBase(makeTexts({"x"}))}));
    object.setPropertyValue("A", 9007199254740993);
    object.setPropertyValue("R", Ratio{1000, 3});
    object.setPropertyValue("E", makeEval("1 + 1"));
    object.setPropertyValue("Child", makeObject());
    object.setPropertyValue("Child.X", 0.1);
    const std::string text = serialized(object.asPtr<IBaseObject>());
    EXPECT_EQ(R"({
  "className": "RangeItem",
  "propValues": {
    "A": 9007199254740993,
    "B": true,
    "Child": {
      "propValues": {
        "X": 0.1
      }
    },
    "DisplayName": "1 V \"x\" ä",
    "E": {
      "__type": "Eval",
      "expr": "1 + 1"
    },
    "Min": -1.0,
    "R": "1000/3",
    "Z": [
      1,
      [
        "x"
      ]
    ]
  }
})",
              text);
    const GenericPropertyObjectPtr copy(deserialized(text).asPtr<IPropertyObject>());
    EXPECT_EQ(text, serialized(copy.asPtr<IBaseObject>()));
    EXPECT_EQ("RangeItem", copy.getClassName());
    EXPECT_EQ("0.1", get(copy, "Child.X"));
}

TEST(Serialization, whatHasNoFormFailsTheWholeCall) {
    const auto object = makeObject();
    auto write = [&] { return failure([&] { serialized(object.asPtr<IBaseObject>()); }); };
    object.setPropertyValue("P", makeProc([](const BasePtr&) -> ErrCode { return 0; }));
    EXPECT_EQ("80000018 Not serializable", write());
    object.setPropertyValue("P", std::numeric_limits<double>::infinity());
    EXPECT_EQ("80000018 inf can't be written as a number", write());
    object.setPropertyValue("P", "\xff");
    EXPECT_EQ("80000018 A text is no valid UTF-8", write());
    object.setPropertyValue("P", object);
    EXPECT_EQ("80000018 A property object that contains itself can't be serialized", write());
    object.clearProperty("P");
    EXPECT_EQ("", write());
}

TEST(Serialization, badTextTellsPlaceAndReason) {
    const std::string deep(100000, '[');
    const std::pair<std::string, const char*> cases[] = {
        {"{", "Bad JSON: parse error at line 1, column 2:"},
        {"{\n\"a\": 1,}", "Bad JSON: parse error at line 2, column 8:"},
        {"{\"propValues\": {\"a\": 1}} // comment", "Bad JSON: parse error at line 1, column 26:"},
        {"", "Bad JSON: parse error at line 1, column 1:"},
        {"\"\xff\"", "Bad JSON: parse error at line 1, column 2:"},
        {deep, "The text is nested more than 64 deep"},
        {R"({"propValues": {"a": 1, "b": 2, "a": 3}})", "The key \"a\" stands twice in one object"},
        {R"({"propValues": {"x": [1, null]}})", "/propValues/x/1: null is no value"},
        {R"({"propValues": {"x": 9223372036854775808}})", "/propValues/x: the integer is too large"},
        {R"({"propValues": 1})", "/propValues: must be an object"},
        {R"({"propValue": {}})", "/: unknown key \"propValue\""},
        {R"({"className": 3})", "/className: must be a string"},
        {R"({"propValues": {"a": {"__type": "Nothing"}}})", "/propValues/a: unknown type \"Nothing\""},
        {R"({"propValues": {"a": {"className": "Nobody"}}})",
         "/propValues/a: Property class \"Nobody\" (of \"Nobody\") is not registered"},
        {R"({"className": "RangeItem", "propValues": {"Min": "low"}})",
         "/: Value type is different than property type and conversion failed"},
        {R"({"__type": "Eval", "expr": "1 +"})",
         "/: Column 4 of the expression \"1 +\": a value is missing at the end"},
        {R"({"__type": "Eval", "expr": "1", "x": 1})", "/: unknown key \"x\""},
        {R"({"__type": "Eval"})", "/: the key \"expr\" is missing"},
        {R"({"__type": "PropertyObjectClass", "name": "c"})", "/: the key \"properties\" is missing"},
        {R"({"__type": "PropertyObjectClass", "name": "c", "properties": [], "base": ""})", "/: unknown key \"base\""},
        {R"({"__type": "PropertyObjectClass", "name": "", "properties": []})", "/: a property class needs a name"},
        {propertyForm(R"("name": "B")"), "/properties/1: the key \"type\" is missing"},
        {propertyForm(R"("name": "B", "type": "integer")"), "/properties/1: unknown type \"integer\""},
        {propertyForm(R"("name": "A", "type": "int")"), "/properties/1: Property A already exists"},
        {propertyForm(R"("name": "B", "type": "int", "defualt": 1)"), "/properties/1: unknown key \"defualt\""},
        {propertyForm(R"("name": "B", "type": "int", "default": "1")"),
         "/properties/1: \"default\" of property \"B\" must be of type int"},
        {propertyForm(R"("name": "B", "type": "int", "default": 1.5)"),
         "/properties/1: \"default\" of property \"B\" must be of type int"},
        {propertyForm(R"("name": "B", "type": "int", "values": "x")"),
         "/properties/1: \"values\" of property \"B\" must be a list"},
        {propertyForm(R"("name": "B", "type": "int", "visible": 1)"),
         "/properties/1: \"visible\" of property \"B\" must be true or false"},
        {propertyForm(R"("name": "B", "type": "reference", "reference": "%A")"),
         "/properties/1: \"reference\" of property \"B\" must be an expression"},
        {propertyForm(R"("name": "B", "type": "int", "selection": 1)"),
         "/properties/1/selection: must be true or false"},
        {propertyForm(R"("name": "B", "type": "int", "values": [1, {"__type": "Eval", "expr": "$"}]})"), nullptr},
        {propertyForm(R"("name": "B", "type": "int", "values": [1, {"__type": "Eval", "expr": "$"}])"),
         "/properties/1/values/1: Column 2 of the expression \"$\": expected a name"},
        {propertyForm(R"("name": "B", "type": "int", "configurationActions": [[1, 2]])"),
         "/properties/1: a configuration action is a list of mode, states and action"},
    };
    for (const auto& [text, error] : cases) {
        const std::string result = failure([&, text = text] { deserialized(text); });
        if (error == nullptr) {
            EXPECT_EQ("80000021 Bad JSON", result.substr(0, 17)) << text;
            continue;
        }
        const std::string expected = std::string("80000021 ") + error;
        EXPECT_EQ(expected, result.substr(0, expected.size())) << text.substr(0, 200);
        if (expected.back() != ':') {
            EXPECT_EQ(expected, result);
        }
    }
}

TEST(Serialization, theWriterKeepsItsForm) {
    ISerializer* raw = nullptr;
    checkErrorInfo(createJsonSerializer(&raw));
    const auto writer = ObjectPtr<ISerializer>::take(raw);
    IString* text = nullptr;
    EXPECT_EQ(Errors::InvalidOperation, writer->key("a"));
    EXPECT_EQ(Errors::InvalidOperation, writer->endObject());
    EXPECT_EQ(Errors::Success, writer->startObject());
    EXPECT_EQ(Errors::InvalidOperation, writer->writeInt(1));
    EXPECT_EQ(Errors::InvalidOperation, writer->getOutput(&text));
    EXPECT_EQ(Errors::Success, writer->key("a"));
    EXPECT_EQ(Errors::InvalidOperation, writer->key("b"));
    EXPECT_EQ(Errors::InvalidOperation, writer->endObject());
    EXPECT_EQ(Errors::Success, writer->startList());
    EXPECT_EQ(Errors::InvalidOperation, writer->endObject());
    EXPECT_EQ(Errors::Success, writer->endList());
    EXPECT_EQ(Errors::InvalidOperation, writer->key("a"));
    EXPECT_EQ(Errors::Success, writer->endObject());
    EXPECT_EQ(Errors::InvalidOperation, writer->startList());
    zornClearErrorInfo();
}

TEST(Serialization, aDefinitionFollowsItsMeasurement) {
    const Definition vb2;
    EXPECT_EQ("21.3.1.2", textOf(vb2.objectClass.getProperty("AmplifierID").getReadOnlyValue()));
    EXPECT_EQ(0u, vb2.objectClass.getProperty("DeviceRanges").getIndex() - 11u);
    const auto channel = makeObject("ampl_vb2");
    std::vector<std::string> changed;
    checkErrorInfo(channel.getOnPropertyValueChanged()->addHandler(
        makeHandler([&](const BasePtr&, const ObjectPtr<IEventArgs>& raw) {
            const PropertyValueChangedEventArgsPtr arguments(raw.asPtr<IPropertyValueChangedEventArgs>());
            changed.push_back(arguments.getPropertyName().toStdString());
        }).get()));

    auto range = channel.getPropertyInfo("Range");
    EXPECT_EQ("VoltageRange", range.getName());
    EXPECT_EQ("V", textOf(range.getUnit()));
    ASSERT_EQ(3u, range.getValuesAsList().getCount());
    const GenericPropertyObjectPtr item(range.getValuesAsList().getItemAt(2).asPtr<IPropertyObject>());
    EXPECT_EQ("0.1", get(item, "DisplayName"));
    EXPECT_DOUBLE_EQ(-0.1, item.getPropertyValue<double>("Min"));
    EXPECT_EQ(2u, channel.getPropertyInfo("HPFilter").getValuesAsList().getCount());
    EXPECT_FALSE(fromValue<bool>(channel.getPropertyInfo("BridgeType").getVisible()));

    channel.setPropertyValue("Measurement", 1);
    range = channel.getPropertyInfo("Range");
    EXPECT_EQ("BridgeRange", range.getName());
    EXPECT_EQ("mV/V", textOf(range.getUnit()));
    EXPECT_EQ(2u, range.getValuesAsList().getCount());
    EXPECT_TRUE(range.isSelection());
    EXPECT_TRUE(range.isHidden());
    EXPECT_EQ(1u, channel.getPropertyInfo("HPFilter").getValuesAsList().getCount());
    EXPECT_TRUE(fromValue<bool>(channel.getPropertyInfo("BridgeType").getVisible()));
    channel.setPropertyValue("Range", 1);
    EXPECT_EQ("1", get(channel, "Range"));
    EXPECT_EQ("1", get(channel, "BridgeRange"));
    EXPECT_EQ("0", get(channel, "VoltageRange"));
    EXPECT_EQ((std::vector<std::string>{"Measurement", "BridgeRange"}), changed);

    EXPECT_EQ("VB-2", get(channel, "ModuleName"));
    EXPECT_EQ("5", textOf(channel.getPropertyInfo("Excitation").getValuesAsList().getItemAt(1)));
    EXPECT_EQ("0.1", get(channel, "DeviceRanges"));
    // The properties of a channel as well, since that is the class's parent.
    EXPECT_EQ("true", get(channel, "ShouldReserveMemory"));
    // Written and read again, the class is the same.
    const std::string text = serialized(vb2.objectClass.asPtr<IBaseObject>());
    EXPECT_EQ(text, serialized(deserialized(text)));
    EXPECT_NE(std::string::npos, text.find("\"parent\": \"Channel\""));
}

TEST(Serialization, classesKeepAllTheirAttributes) {
    const std::string text = R"({
  "__type": "PropertyObjectClass",
  "name": "full",
  "properties": [
    {
      "name": "A",
      "type": "ratio",
      "default": "1000/1",
      "min": "1/2",
      "max": {
        "__type": "Eval",
        "expr": "$B"
      },
      "enabled": {
        "__type": "Eval",
        "expr": "true"
      },
      "visible": false,
      "hidden": true,
      "configurationActions": [
        [
          1,
          1,
          1
        ],
        [
          2,
          4,
          0
        ]
      ]
    }
  ]
})";
    EXPECT_EQ(text, serialized(deserialized(text)));
    // Whole numbers and texts become what the property holds.
    const PropertyObjectClassPtr read(
        deserialized(propertyForm(R"("name": "B", "type": "float", "default": 3)")).asPtr<IPropertyObjectClass>());
    EXPECT_EQ(CoreType::Float, coreTypeOf(read.getProperty("B").getDefaultValue()));
}

TEST(Serialization, theNewestFactoryCountsUntilItsLibraryGoes) {
    static int calls = 0;
    const SerializerFactory factory = [](ISerializedObject*, IBaseObject** object) -> ErrCode {
        ++calls;
        *object = toValue("made here").detach();
        return Errors::Success;
    };
    ASSERT_EQ(Errors::Success, zornRegisterSerializerFactory("PropertyObject", factory));
    ASSERT_EQ(Errors::Success, zornRegisterSerializerFactory("PropertyObject", factory));
    EXPECT_EQ("made here", textOf(deserialized("{}")));
    EXPECT_EQ(1, calls);
    // The test program stands for the library that goes; what the host has of its own comes back.
    ASSERT_EQ(Errors::Success, zornDropSerializerFactories(reinterpret_cast<const void*>(factory)));
    EXPECT_TRUE(deserialized("{}").asPtrOrNull<IPropertyObject>());
    EXPECT_EQ(1, calls);
    EXPECT_EQ(Errors::ArgumentNull, zornRegisterSerializerFactory(nullptr, factory));
}

TEST(Update, actionsDecide) {
    struct Case {
        const char* what;
        PropertyState states;  // of the rule in mode 1
        ConfigurationAction action;
        bool set, inSetup;
        const char* result;
    };
    using enum ConfigurationAction;
    const Case cases[] = {
        {"no rule, only here", 0, Leave, true, false, "here"},
        {"no rule, only in the setup", 0, Leave, false, true, "setup"},
        {"no rule, in both", 0, Leave, true, true, "setup"},
        {"leave", 6, Leave, true, true, "here"},
        {"clear what the setup lacks", 1, Clear, true, false, "default"},
        {"clear", 4, Clear, true, true, "default"},
        {"set if unset, unset", 6, SetIfUnset, false, true, "setup"},
        {"set if unset, set", 6, SetIfUnset, true, true, "here"},
        {"take over everything", 7, TakeOver, true, false, "default"},
        {"take over", 7, TakeOver, true, true, "setup"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto object = makeObject();
        auto info = PropertyInfoPtr::create("P", CoreType::String).defaultValue("default");
        if (c.states != 0)
            info.configurationAction(1, c.states, c.action);
        object.registerProperty(info);
        if (c.set)
            object.setPropertyValue("P", "here");
        update(object, c.inSetup ? R"({"propValues": {"P": "setup"}})" : R"({"propValues": {}})");
        EXPECT_EQ(c.result, get(object, "P"));
        // The rules of the other mode don't matter.
        object.setPropertyValue("P", "here");
        update(object, R"({"propValues": {"P": "setup"}})", 2);
        EXPECT_EQ("setup", get(object, "P"));
    }
}

TEST(Update, kindsOfProperties) {
    const auto object = makeObject();
    object.registerProperty(PropertyInfoPtr::create("Rate", CoreType::Ratio));
    object.registerProperty(PropertyInfoPtr::create("Fixed", CoreType::Int).readOnly(1));
    object.registerProperty(PropertyInfoPtr::create("MayBe", CoreType::Int).defaultValue(0));
    object.registerProperty(PropertyInfoPtr::create("Kept", CoreType::Object));
    object.registerProperty(PropertyInfoPtr::create("Tree", CoreType::Object)
                                .configurationAction(1, 7, ConfigurationAction::TakeOver));
    object.registerProperty(PropertyInfoPtr::create("Items", CoreType::List));
    const auto kept = makeObject(), tree = makeObject(), first = makeObject("RangeItem"), second = makeObject();
    kept.setPropertyValue("X", 1);
    tree.setPropertyValue("X", 1);
    first.setPropertyValue("Min", 1.0);
    object.setPropertyValue("Kept", kept);
    object.setPropertyValue("Tree", tree);
    object.setPropertyValue("Items", ListPtr::create({asBase(first), asBase(second), toValue(3)}));
    update(object, R"({"className": "ignored", "propValues": {
        "Fixed": 5, "Free": [1, "x"],
        "Items": [{"className": "RangeItem", "propValues": {"Min": 2}}, {"className": "RangeItem"}],
        "Kept": {"propValues": {"X": 2}}, "MayBe": "7", "Rate": "1000/3", "Tree": {"propValues": {"X": 2}}}})");
    EXPECT_EQ("1000/3", get(object, "Rate"));
    EXPECT_FALSE(object.isPropertySet("Fixed"));
    EXPECT_EQ("7", get(object, "MayBe"));
    EXPECT_EQ("x", get(object, "Free[1]"));
    EXPECT_EQ("1", get(object, "Kept.X"));
    // Objects of the same class stay themselves.
    EXPECT_TRUE(object.getPropertyValue<>("Tree") == asBase(tree));
    EXPECT_EQ("2", get(object, "Tree.X"));
    const auto items = object.getPropertyValue<ListPtr>("Items");
    ASSERT_EQ(2u, items.getCount());
    EXPECT_TRUE(items.getItemAt(0) == asBase(first));
    EXPECT_EQ("2", get(object, "Items[0].Min"));
    EXPECT_FALSE(items.getItemAt(1) == asBase(second));
    EXPECT_EQ("RangeItem", GenericPropertyObjectPtr(items.getItemAt(1).asPtr<IPropertyObject>()).getClassName());
}

TEST(Update, aFailureStopsItAndTellsWhy) {
    const auto object = makeObject();
    object.registerProperty(PropertyInfoPtr::create("B", CoreType::Int));
    EXPECT_EQ("80000001 Value type is different than property type and conversion failed",
              failure([&] { update(object, R"({"propValues": {"A": 1, "B": "x", "C": 3}})"); }));
    EXPECT_TRUE(object.isPropertySet("A"));
    EXPECT_FALSE(object.isPropertySet("C"));
    EXPECT_EQ("80000021 /propValues: must be an object", failure([&] { update(object, R"({"propValues": []})"); }));
    update(object, "{}");
}
