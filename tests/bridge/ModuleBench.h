#pragma once

#include "modules/daq/module/DaqModuleImpl.h"
#include "tests/bridge/Bench.h"

namespace Harvane::RT::Modules::Daq::Test {

struct OpenModule : DaqModuleImpl {
    using DaqModuleImpl::daqController;
    using DaqModuleImpl::daqStructure;
    using DaqModuleImpl::dataModule;
    using DaqModuleImpl::onAdd;
};

// The module object in a host's tree, driven call by call. A call that fails throws.
struct ModuleBench : HostData {
    ModuleBench() : impl(new OpenModule()), module(Core::ObjectPtr<Core::IModule>::take(impl)) {}
    ~ModuleBench() { forgetProviders(); }

    void add() { Core::checkErrorInfo(HostData::add(*module, dataModule)); }
    void configure() { HostData::configure(*module); }
    // A module with this device, ready to be initialized.
    void addDevice(const std::shared_ptr<Device>& device) {
        plug({device});
        add();
        configure();
    }
    // Up to the first cycle; the channels of these names are used.
    void start(const Texts& used) {
        Core::checkErrorInfo(module->initialize());
        reserveMemory(impl->daqStructure, used);
        Core::checkErrorInfo(module->start());
        Core::checkErrorInfo(module->postStart());
    }
    void cycles(int count) const {
        for (int i = 0; i < count; ++i) {
            Core::checkErrorInfo(module->processData());
        }
    }
    void stop() const { Core::checkErrorInfo(module->stop()); }

    OpenModule* impl;
    Core::ObjectPtr<Core::IModule> module;
};

}  // namespace Harvane::RT::Modules::Daq::Test
