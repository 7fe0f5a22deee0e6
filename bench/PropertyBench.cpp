#include <benchmark/benchmark.h>

#include <zorn/objects/property_object.h>

using namespace Harvane::RT::Core;

namespace {

GenericPropertyObjectPtr makeObject() {
    IPropertyObject* object = nullptr;
    checkErrorInfo(createPropertyObject(&object, nullptr, nullptr));
    return ObjectPtr<IPropertyObject>::take(object);
}

ObjectPtr<IEvalValue> makeEval(const char* expression) {
    IEvalValue* eval = nullptr;
    checkErrorInfo(createEvalValue(&eval, expression));
    return ObjectPtr<IEvalValue>::take(eval);
}

// A get through the interface, with the name and the result as objects, as every caller has them.
void get(benchmark::State& state, const GenericPropertyObjectPtr& object, const char* property) {
    const StringPtr name(property);
    for ([[maybe_unused]] auto _ : state) {
        IBaseObject* value = nullptr;
        if (failed(object->getProperty(name.get(), &value))) {
            state.SkipWithError("get failed");
        }
        value->releaseRef();
    }
}

void PropertyGet(benchmark::State& state) {
    const auto object = makeObject();
    object.registerProperty(PropertyInfoPtr::create("Rate", CoreType::Int).defaultValue(1));
    object.setPropertyValue("Rate", 1000);
    get(state, object, "Rate");
}
BENCHMARK(PropertyGet);

void PropertySetWithListener(benchmark::State& state) {
    const auto object = makeObject();
    int64_t calls = 0;
    object.registerProperty(
        PropertyInfoPtr::create("Rate", CoreType::Int)
            .defaultValue(1)
            .onValueChanged(makeHandler([&](const BasePtr&, const ObjectPtr<IEventArgs>&) { ++calls; })));
    const StringPtr name("Rate");
    const BasePtr value = toValue(1000);
    for ([[maybe_unused]] auto _ : state) {
        if (failed(object->setProperty(name.get(), value.get()))) {
            state.SkipWithError("set failed");
        }
    }
    if (calls == 0) {
        state.SkipWithError("the listener was not called");
    }
}
BENCHMARK(PropertySetWithListener);

void PropertyEvalDefault(benchmark::State& state) {
    const auto object = makeObject();
    object.registerProperty(PropertyInfoPtr::create("Mode", CoreType::Int).defaultValue(1));
    object.registerProperty(
        PropertyInfoPtr::create("Range", CoreType::Int).defaultValue(makeEval("switch($Mode, 0, 5, 1, 2 * 5)")));
    get(state, object, "Range");
}
BENCHMARK(PropertyEvalDefault);

void PropertyOfChild(benchmark::State& state) {
    const auto object = makeObject();
    const auto child = makeObject();
    child.registerProperty(PropertyInfoPtr::create("Enabled", CoreType::Bool).defaultValue(true));
    child.setPropertyValue("Enabled", true);
    object.registerProperty(PropertyInfoPtr::create("Route", CoreType::Object));
    object.setPropertyValue("Route", child);
    get(state, object, "Route.Enabled");
}
BENCHMARK(PropertyOfChild);

}  // namespace
