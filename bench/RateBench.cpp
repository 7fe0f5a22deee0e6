#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "modules/daq/controller/DaqController.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAI.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDevice.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDeviceFactory_CP.h"
#include "modules/daq/objectmodel/DaqObjectFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"
#include "modules/daq/objectmodel/FixedInterfaceHelper.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericDeviceFactory.h"
#include "modules/daq/objectmodel/GenericInterface.h"
#include "modules/daq/objectmodel/SystemDevice.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "simulator/preload/Control.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

// One discovered instrument for all benchmarks.
DaqController& system() {
    static const auto controller = [] {
        static DaqObjectFactory<GenericInterface<FixedInterfaceHelper, FixedInterfacePort>,
                                DaqObjectFactoryType::Interface>
            interfaces;
        static DaqObjectFactory<GenericDeviceFactory<KestrixDevice, KestrixDeviceFactory_CP>,
                                DaqObjectFactoryType::DeviceFactory>
            devices;
        DaqObjectFactoryManager::registerObjectFactory(&interfaces);
        DaqObjectFactoryManager::registerObjectFactory(&devices);
        Harvane::Shared::Kestrix::KestrixLogger::get_logger().setLevel(7);
        auto scenario = kestrixsim::Scenario::counters(1);
        scenario.supplyOn = true;
        kestrixsim::reset(scenario);
        auto made = std::make_unique<DaqController>();
        made->initialize();
        made->scan();
        made->initializeHardware();
        return made;
    }();
    return *controller;
}

KestrixAI& analog() {
    return dynamic_cast<KestrixAI&>(*system().daqDevices.at(0)->aiDevice);
}

void useClock(int clock) {
    if (analog().baseClock != clock) {
        analog().setBaseClock(clock);
    }
}

// Runs `check` for the request that takes it longest, found by counting time over all candidates.
template <class Check>
void measureWorst(benchmark::State& state, Check check) {
    useClock(static_cast<int>(state.range(0)));
    const auto secondsOf = [&](int request) {
        double best = 1.0;
        for (int i = 0; i < 3; ++i) {
            const auto begin = std::chrono::steady_clock::now();
            benchmark::DoNotOptimize(check(request));
            best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
        }
        return best;
    };
    int worst = 1;
    double longest = 0.0;
    for (int request = 1; request <= 15000001; request += 1 + request / 2000) {
        if (const double seconds = secondsOf(request); seconds > longest) {
            longest = seconds;
            worst = request;
        }
    }
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(check(worst));
    }
    state.counters["request"] = worst;
}

void CheckSampleRateWorst(benchmark::State& state) {
    measureWorst(state, [](int request) { return system().checkSampleRate(request); });
}
BENCHMARK(CheckSampleRateWorst)->Arg(15000000)->Arg(10000000)->Unit(benchmark::kMicrosecond);

void CheckChannelRateWorst(benchmark::State& state) {
    const int deviceRate = static_cast<int>(state.range(1));
    measureWorst(state, [=](int request) { return analog().checkChannelRate(1, deviceRate, request); });
}
BENCHMARK(CheckChannelRateWorst)
    ->Args({15000000, 1875000})
    ->Args({15000000, 15000000})
    ->Args({15000000, 14999981})  // a prime: nothing fits and everything is looked at
    ->Unit(benchmark::kMicrosecond);

void CheckDeviceRateWorst(benchmark::State& state) {
    const Device& device = *system().daqDevices.at(0);
    measureWorst(state, [&](int request) { return device.checkRate(1875000, request); });
}
BENCHMARK(CheckDeviceRateWorst)->Arg(15000000)->Unit(benchmark::kMicrosecond);

}  // namespace
