#pragma once

#include <string>

#include <zorn/objects/property_object.h>

// The classes of the host's tree and their properties. Every source file that includes this has them registered before
// its program or library runs; registering again changes nothing.
namespace Harvane::RT::Core {

// One property of a class. The default is made of `number` and the type; texts start empty.
struct ClassPropertyRow {
    const char* name;
    CoreType type;
    bool hasDefault = false;
    double number = 0.0;
    bool visible = true;
};

struct NodePropertyClass {
    static constexpr const char* ClassName = "Node";
    static constexpr const char* ClassParent = "";
    static constexpr const char* NodeTypeProp = "NodeType";
    static constexpr const char* NodeIdProp = "NodeId";
    static constexpr const char* GetUniqueIdProp = "getUniqueId";
    static constexpr const char* ParentProp = "Parent";

    static constexpr ClassPropertyRow Rows[] = {
        {NodeTypeProp, CoreType::Int, true, 0, false},
        {NodeIdProp, CoreType::String, true},
        {GetUniqueIdProp, CoreType::Proc, false, 0, false},
        {ParentProp, CoreType::Object},
    };
};

struct ChannelNodePropertyClass {
    static constexpr const char* ClassName = "ChannelNode";
    static constexpr const char* ClassParent = NodePropertyClass::ClassName;
    static constexpr const char* NameProp = "Name";
    static constexpr const char* ChannelNodeTypeProp = "ChannelNodeType";

    static constexpr ClassPropertyRow Rows[] = {
        {NameProp, CoreType::String, true},
        {ChannelNodeTypeProp, CoreType::Int, true, 0, false},
    };
};

struct ChannelPropertyClass {
    static constexpr const char* ClassName = "Channel";
    static constexpr const char* ClassParent = ChannelNodePropertyClass::ClassName;
    static constexpr const char* GetActiveProp = "getActive";
    static constexpr const char* UsedProp = "Used";
    static constexpr const char* UnitProp = "Unit";
    static constexpr const char* ScaleProp = "Scale";
    static constexpr const char* OffsetProp = "Offset";
    static constexpr const char* MinValueProp = "MinValue";
    static constexpr const char* MaxValueProp = "MaxValue";
    static constexpr const char* GetBufferProp = "getBuffer";
    static constexpr const char* GetSamplesAcquiredProp = "getSamplesAcquired";
    static constexpr const char* IncrementSamplePositionProp = "incrementSamplePosition";
    static constexpr const char* SampleRateProp = "SampleRate";
    static constexpr const char* ChannelIdProp = "ChannelId";
    static constexpr const char* InitializeProp = "initialize";
    static constexpr const char* InitializeAcquisitionProp = "initializeAcquisition";
    static constexpr const char* StartAcquisitionProp = "startAcquisition";
    static constexpr const char* StopAcquisitionProp = "stopAcquisition";
    static constexpr const char* FinalizeAcquisitionProp = "finalizeAcquisition";
    static constexpr const char* GetCurrentSampleProp = "getCurrentSample";
    static constexpr const char* GetSampleAtPosProp = "getSampleAtPos";
    static constexpr const char* GetSampleAtRelativePosProp = "getSampleAtRelativePos";
    static constexpr const char* HasSamplesProp = "hasSamples";
    static constexpr const char* ScaleValueProp = "scaleValue";
    static constexpr const char* DescriptionProp = "Description";
    static constexpr const char* SampleDataTypeProp = "SampleDataType";
    static constexpr const char* DimensionProp = "Dimension";
    static constexpr const char* TypeProp = "Type";
    static constexpr const char* IsControlProp = "IsControl";
    static constexpr const char* IsStoredProp = "IsStored";
    static constexpr const char* ShouldReserveMemoryProp = "ShouldReserveMemory";

    static constexpr ClassPropertyRow Rows[] = {
        {GetActiveProp, CoreType::Proc, false, 0, false},
        {UsedProp, CoreType::Bool, true},
        {UnitProp, CoreType::String, true},
        {ScaleProp, CoreType::Float, true},
        {OffsetProp, CoreType::Float, true},
        {MinValueProp, CoreType::Float, true},
        {MaxValueProp, CoreType::Float, true},
        {GetBufferProp, CoreType::Proc, false, 0, false},
        {GetSamplesAcquiredProp, CoreType::Proc, false, 0, false},
        {IncrementSamplePositionProp, CoreType::Proc, false, 0, false},
        {SampleRateProp, CoreType::Ratio},
        {ChannelIdProp, CoreType::String, true},
        {InitializeProp, CoreType::Proc, false, 0, false},
        {InitializeAcquisitionProp, CoreType::Proc, false, 0, false},
        {StartAcquisitionProp, CoreType::Proc, false, 0, false},
        {StopAcquisitionProp, CoreType::Proc, false, 0, false},
        {FinalizeAcquisitionProp, CoreType::Proc, false, 0, false},
        {GetCurrentSampleProp, CoreType::Proc, false, 0, false},
        {GetSampleAtPosProp, CoreType::Proc, false, 0, false},
        {GetSampleAtRelativePosProp, CoreType::Proc, false, 0, false},
        {HasSamplesProp, CoreType::Proc, false, 0, false},
        {ScaleValueProp, CoreType::Proc, false, 0, false},
        {DescriptionProp, CoreType::String, true},
        {SampleDataTypeProp, CoreType::Int, true},
        {DimensionProp, CoreType::Int, true, 1},
        {TypeProp, CoreType::Int, true},
        {IsControlProp, CoreType::Bool, true},
        {IsStoredProp, CoreType::Bool, true},
        {ShouldReserveMemoryProp, CoreType::Bool, true, 1},
    };
};

// The items of a range list.
struct RangeItemPropertyClass {
    static constexpr const char* ClassName = "RangeItem";
    static constexpr const char* DisplayNameProp = "DisplayName";
    static constexpr const char* MinProp = "Min";
    static constexpr const char* MaxProp = "Max";

    static constexpr ClassPropertyRow Rows[] = {
        {DisplayNameProp, CoreType::String},
        {MinProp, CoreType::Float},
        {MaxProp, CoreType::Float},
    };
};

inline PropertyInfoPtr makeClassProperty(const ClassPropertyRow& row) {
    PropertyInfoPtr info = PropertyInfoPtr::create(row.name, row.type);
    if (row.hasDefault) {
        switch (row.type) {
            case CoreType::Bool:
                info.defaultValue(row.number != 0.0);
                break;
            case CoreType::Int:
                info.defaultValue(static_cast<int64_t>(row.number));
                break;
            case CoreType::Float:
                info.defaultValue(row.number);
                break;
            default:
                info.defaultValue("");
                break;
        }
    }
    if (!row.visible) {
        info.visible(false);
    }
    return info;
}

// Adds the class of a table to the host's classes unless it is there. Raises the exception of a failing host call.
template <class Table>
class PropertyClassRegistrator {
public:
    PropertyClassRegistrator() {
        const auto manager = PropertyObjectManagerPtr::create();
        IPropertyObjectClass* present = nullptr;
        const ErrCode code = manager->getClass(StringPtr(Table::ClassName).get(), &present);
        if (present != nullptr) {
            present->releaseRef();
        }
        if (code != Errors::NotFound) {
            return;
        }
        zornClearErrorInfo();
        const auto objectClass = PropertyObjectClassPtr::create();
        objectClass.setName(Table::ClassName);
        if (*Table::ClassParent != 0) {
            objectClass.setParent(Table::ClassParent);
        }
        for (const ClassPropertyRow& row : Table::Rows) {
            objectClass.registerProperty(makeClassProperty(row));
        }
        manager.addClass(objectClass);
    }
};

using NodePropertyClassRegistrator = PropertyClassRegistrator<NodePropertyClass>;
using ChannelNodePropertyClassRegistrator = PropertyClassRegistrator<ChannelNodePropertyClass>;
using ChannelPropertyClassRegistrator = PropertyClassRegistrator<ChannelPropertyClass>;

// Adds "RangeItem"; the host refuses it silently when it is there.
class RegisterRangeItemPropertyClass {
public:
    RegisterRangeItemPropertyClass() {
        IPropertyObjectClass* raw = nullptr;
        checkErrorInfo(createProperyObjectClassWithName(&raw, StringPtr(RangeItemPropertyClass::ClassName).get()));
        const PropertyObjectClassPtr objectClass(ObjectPtr<IPropertyObjectClass>::take(raw));
        for (const ClassPropertyRow& row : RangeItemPropertyClass::Rows) {
            objectClass.registerProperty(makeClassProperty(row));
        }
        if (failed(PropertyObjectManagerPtr::create()->addClass(objectClass.get()))) {
            zornClearErrorInfo();
        }
    }
};

// The first failure of a static initialiser of this library. It can't be thrown from there: that would end the process
// before anybody could read the reason. Whoever starts the library asks here.
struct StartupFailure {
    ErrCode code = Errors::Success;
    std::string text;
};
inline StartupFailure& startupFailure() {
    static StartupFailure failure;
    return failure;
}
inline void rememberStartupFailure(ErrCode code, const char* text) {
    if (StartupFailure& failure = startupFailure(); succeeded(failure.code)) {
        failure.code = code;
        failure.text = text;
    }
}

// Runs a part of the static initialisation; a failure is remembered and false the result.
template <class Body>
bool runAtStartup(Body&& body) noexcept {
    try {
        body();
        return true;
    } catch (const ZornException& exception) {
        rememberStartupFailure(exception.errorCode, exception.what());
    } catch (const std::bad_alloc&) {
        rememberStartupFailure(Errors::NoMemory, "No memory");
    } catch (const std::exception& exception) {
        rememberStartupFailure(Errors::GeneralError, exception.what());
    } catch (...) {
        rememberStartupFailure(Errors::GeneralError, "Unknown failure");
    }
    return false;
}

namespace {
[[maybe_unused]] const bool propertyClassesRegistered = runAtStartup([] {
    NodePropertyClassRegistrator node;
    ChannelNodePropertyClassRegistrator channelNode;
    ChannelPropertyClassRegistrator channel;
    RegisterRangeItemPropertyClass rangeItem;
});
}

}  // namespace Harvane::RT::Core
