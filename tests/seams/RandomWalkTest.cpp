#include <fcntl.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include <zorn/types/object_impl.h>

#include "modules/daq/bridge/DaqStructure.h"
#include "tests/seams/Station.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;
using kestrixsim::Fault;

// Sequences of steps, edits and faults in any order. Whatever they did: once the faults are gone, a correct restart
// gives a good run. One program has one instrument, so that several programs walk at a time.
//
//   KESTRIX_WALK_SEED       number of the first sequence; a new one each time
//   KESTRIX_WALK_SEQUENCES  how many; a single one walks in this program and tells each step
namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr uint64_t usualSequences = 300;
#else
constexpr uint64_t usualSequences = 1000;
#endif
#ifdef __SANITIZE_ADDRESS__
bool isLeaking() {
    return __lsan_do_recoverable_leak_check() != 0;
}
#else
bool isLeaking() {
    return false;
}
#endif
constexpr uint64_t programs = 24;  // a sequence waits for the instrument most of the time
constexpr unsigned secondsForOne = 100;

class Walk {
public:
    explicit Walk(uint64_t seed) : random_(seed) {}

    void run() {
        const auto objects = zornSharedLibObjectCount.load();
        begin();
        const int moves = 8 + below(20);
        for (int i = 0; i < moves && !testing::Test::HasFailure(); ++i) {
            move();
        }
        if (!testing::Test::HasFailure()) {
            end();
        }
        questioner_.reset();
        station_.reset();
        EXPECT_EQ(zornSharedLibObjectCount.load(), objects) << "objects are left";
        EXPECT_EQ(kestrixsim::openDescriptors(), 0);
    }

private:
    using Step = ModuleInHost::Step;

    int below(int limit) { return static_cast<int>(random_() % static_cast<uint64_t>(limit)); }
    bool chance(int percent) { return below(100) < percent; }
    template <class T>
    T oneOf(std::initializer_list<T> values) {
        return values.begin()[below(static_cast<int>(values.size()))];
    }
    template <class T>
    const T& oneOf(const std::vector<T>& values) {
        return values[static_cast<size_t>(below(static_cast<int>(values.size())))];
    }
    static void tell(const std::string& text) { std::fprintf(stderr, "  %s\n", text.c_str()); }

    void begin() {
        slots_ = oneOf({1, 2});
        auto scenario = Station::slots(slots_);
        // The small board's modules are always on, which spares the waiting for their supply.
        scenario.boardType = oneOf({0, 1, 1});
        tell("board " + std::to_string(scenario.boardType) + ", " + std::to_string(slots_) + " slots");
        station_ = std::make_unique<Station>(scenario);
        questioner_ = std::make_unique<Questioner>(station_->impl, 1, std::chrono::milliseconds(1));
        if (chance(90)) {
            take(Step::Add);
        }
    }

    void move() {
        // Behind a step of any kind come those that need a tree.
        static constexpr std::tuple<int, void (Walk::*)(), bool> moves[] = {
            {40, &Walk::step, false},    {12, &Walk::cycles, false},     {12, &Walk::rate, true},
            {6, &Walk::use, true},       {2, &Walk::clock, true},        {6, &Walk::option, true},
            {5, &Walk::amplifier, true}, {3, &Walk::usb, true},          {5, &Walk::any, true},
            {10, &Walk::fault, false},   {6, &Walk::clearFaults, false}, {4, &Walk::otherCall, false},
            {2, &Walk::pause, false}};
        int place = below(113);
        const auto chosen =
            std::ranges::find_if(moves, [&](const auto& each) { return (place -= std::get<0>(each)) < 0; });
        if (const auto& [weight, make, needsTree] = *chosen; !needsTree || hasTree()) {
            (this->*make)();
        }
    }

    // ---- Steps ----

    void step() {
        using enum ModuleInHost::Step;
        const Step natural[] = {Add, oneOf({Configure, Initialize}), oneOf({BeforeStart, Start}), Start, Stop};
        take(chance(60) ? natural[static_cast<size_t>(station_->phase())]
                        : ModuleInHost::allSteps[below(std::size(ModuleInHost::allSteps))]);
    }

    void take(Step step) {
        const Phase before = station_->phase();
        const bool oldRings = step == Step::Start && chance(30);
        tell(std::string(nameOf(step)) + (oldRings ? " on old rings" : "") + " in " + nameOf(before));
        const std::string words = oldRings ? station_->start(ModuleInHost::Rings::Old) : station_->take(step);
        const Phase after = station_->phase();
        if (!words.empty()) {
            tell("  " + words);
        }
        const auto allowed = leadsTo(before, step);
        if (step == Step::BeforeStart && !hasTree()) {
            EXPECT_NE(words, "") << "there is no such procedure";
        } else if (!allowed) {
            EXPECT_TRUE(isRefusal(words, step, before)) << nameOf(step) << " in " << nameOf(before) << ": " << words;
            EXPECT_EQ(after, before);
        } else if (words.empty()) {
            EXPECT_EQ(after, *allowed);
        } else {
            const bool isLate = step == Step::BeforeStart || step == Step::Start || step == Step::Stop;
            EXPECT_TRUE(after == before || after == Phase::Scanned || after == Phase::Prepared) << nameOf(after);
            EXPECT_TRUE(!isLate || after == Phase::Prepared) << nameOf(after);
            // A clock that a fault has left unknown stays so until one is chosen.
            EXPECT_TRUE(faulty_ || step == Step::Start || step == Step::BeforeStart || step == Step::Initialize)
                << words;
        }
    }

    void cycles() {
        const int count = 1 + below(50);
        const double seconds = 0.001 * (1 + below(20));
        tell(std::to_string(count) + " cycles of " + std::to_string(seconds) + " s");
        const bool running = station_->phase() == Phase::Running;
        station_->time->hold();
        for (int i = 0; i < count; ++i) {
            station_->time->step(seconds);
            EXPECT_EQ(station_->cycle().empty(), running);
        }
        station_->time->run();
    }

    void pause() {
        const double seconds = 0.1 * below(40);
        tell("pause of " + std::to_string(seconds) + " s");
        station_->time->step(seconds);
    }

    void otherCall() {
        const Phase before = station_->phase();
        for (const auto call : {&IModule::postStart, &IModule::preStop, &IModule::finalize, &IModule::remove}) {
            EXPECT_EQ((station_->module.get()->*call)(), Errors::Success);
        }
        EXPECT_EQ(station_->phase(), before);
    }

    // ---- Edits ----

    bool hasTree() const { return !station_->dataModule.getRootFolder().getChildren().empty(); }
    ChannelPtr<> anyChannel() {
        const int slot = 1 + below(slots_);
        return chance(50) ? station_->raw(slot) : station_->filtered(slot);
    }
    GenericPropertyObjectPtr anyObject() {
        const int which = below(4);
        return which == 0   ? station_->dataModule.asPtr<IPropertyObject>()
               : which == 1 ? station_->device().asPtr<IPropertyObject>()
                            : anyChannel().asPtr<IPropertyObject>();
    }
    template <class T>
    void edit(const GenericPropertyObjectPtr& object, const std::string& name, const T& value, int userPercent = 70) {
        if (!object.hasProperty(name)) {
            return;
        }
        const bool user = chance(userPercent);
        const std::string words = user ? asUser(object, name.c_str(), value) : asHost(object, name.c_str(), value);
        tell(std::string(user ? "user" : "host") + " sets " + name + " to " + textOf(toValue(value)) +
             (words.empty() ? "" : ": " + words));
    }

    void rate() {
        if (chance(10)) {
            tell("clears SampleRate");
            failure([&] { station_->dataModule.clearProperty("SampleRate"); });
            return;
        }
        edit(anyObject(), "SampleRate",
             Ratio{oneOf({0, 7, 100, 142, 150, 333, 1000, 1001, 4834, 5000, 16000, 20000, 46875, 48000, 100000}), 1});
    }
    void use() { edit(anyChannel().asPtr<IPropertyObject>(), "Used", chance(60)); }
    void clock() { edit(station_->device().asPtr<IPropertyObject>(), "BaseClock", oneOf({0, 1, 1, 7})); }
    void option() {
        const int mode = oneOf({1, 1, 1, 14, 12, 6, 2});
        const std::vector<int> sources = chance(30) ? std::vector<int>{14} : std::vector<int>{};
        const std::string words = station_->choose(mode, sources);
        tell("chooses " + station_->chosen() + (words.empty() ? "" : ": " + words));
    }
    void amplifier() {
        const auto channel = station_->raw(1 + below(slots_));
        if (chance(20)) {
            tell("UpdateAmplifier");
            failure([&] {
                checkErrorInfo(channel.getPropertyValue("UpdateAmplifier").asPtr<IProcObject>()->dispatch(nullptr));
            });
            return;
        }
        edit(channel.asPtr<IPropertyObject>(), oneOf({"LPFilter", "HPFilter", "Range", "Measurement", "Excitation"}),
             below(4), 100);
    }
    void usb() {
        const char* mode = oneOf({"On", "Off"});
        tell(std::string("USB mode ") + mode + ": " + station_->ioctl(1, mode));
    }
    void any() {
        const auto object = anyObject();
        const std::string name = oneOf(object.enumProperties()).getName().toStdString();
        // What the host alone reckons the rings' length by, what takes seconds, and what these tests look for.
        if (name == "BufferSizeIsMultipleOf" || name == "BaseClock" || name == "Name") {
            return;
        }
        const BasePtr values[] = {toValue(below(3)), toValue(chance(50)),
                                  toValue(Ratio{int64_t{1000} * (1 + below(5)), 1}), toValue("word")};
        edit(object, name, values[below(4)], 100);
    }

    // ---- Faults ----

    void fault() {
        using enum kestrixsim::FaultKind;
        constexpr int requests[] = {0, 0x40064C03, 0x40064C05, 0x40064C08, 0x40064C09};
        Fault fault;
        // Of those that cost the module seconds of waiting one at a time.
        const bool slow = chance(10);
        fault.kind = slow ? oneOf({AmplifierSilent, AmplifierHalfFrame, ClearNever, PllBusy})
                          : oneOf({MemMap,       MemMap,          MemMap,
                                   MemOpen,      DmaOpen,         DmaIoctl,
                                   DmaIoctl,     DmaIoctl,        DmaRead,
                                   DmaShortRead, DmaStall,        ScriptRefuses,
                                   ScriptSilent, ScriptFails,     MuxError,
                                   MuxAgain,     MuxReadsBack,    I2cSlave,
                                   UartRead,     UartWrite,       AmplifierBadStatus,
                                   AmplifierNan, ClearLate,       SysfsMissing,
                                   TimingRead,   TimingSilent,    TimingShortRead,
                                   SyncHeld,     OscillatorSilent});
        fault.target = fault.kind == AmplifierSilent ? below(slots_) : oneOf({-1, below(2 * slots_)});
        // A map's fault is of one block as a rule: the timing core's is read all the time and would take any.
        constexpr uint32_t blocks[] = {0xA0000000, 0xA0010000, 0xA0200000, 0xA6000000, 0xB0000000, 0xA3000000, 0};
        fault.code = fault.kind == DmaIoctl       ? requests[below(std::size(requests))]
                     : fault.kind == DmaShortRead ? below(2)
                     : fault.kind == ClearLate    ? 50
                     : fault.kind == TimingRead   ? oneOf({0, ENODEV})
                     : fault.kind == MemMap       ? static_cast<int>(blocks[below(std::size(blocks))])
                                                  : 0;
        fault.afterCount = static_cast<uint64_t>(fault.kind == MemMap ? below(400) : below(6));
        fault.times = slow ? 1 : oneOf({1, 1, 2, 5, -1});
        tell("fault " + std::to_string(static_cast<int>(fault.kind)) + " at " + std::to_string(fault.target) +
             ", code " + std::to_string(fault.code) + ", after " + std::to_string(fault.afterCount) + ", " +
             std::to_string(fault.times) + " times");
        Station::inject(fault);
        faulty_ = true;
    }
    void clearFaults() {
        tell("no faults");
        Station::clearFaults();
        faulty_ = false;
    }

    // ---- The end: a correct restart ----

    void end() {
        clearFaults();
        if (station_->phase() == Phase::Running) {
            EXPECT_EQ(station_->stop(), "");
        }
        const auto& found = station_->impl->daqController.allChannels;
        const bool nothingFound = std::none_of(found.begin(), found.end(), [](const auto& channel) {
            return channel->enabled && channel->sampleType == SampleType::Sync;
        });
        if (station_->phase() == Phase::Empty || nothingFound) {
            // What an add left half-way, or found without an amplifier, only serves to be closed.
            tell("a new module");
            questioner_.reset();
            const auto time = station_->time;
            station_.reset();
            EXPECT_EQ(kestrixsim::openDescriptors(), 0);
            station_ = std::make_unique<Station>(time);
            questioner_ = std::make_unique<Questioner>(station_->impl, 1, std::chrono::milliseconds(1));
            EXPECT_EQ(station_->add(), "");
        }
        Station& station = *station_;
        EXPECT_EQ(station.ioctl(1, "Off"), "");
        EXPECT_EQ(station.choose(1), "");
        // Nothing, or another attempt where the last one has left the clock unknown.
        const auto clock = station.device().getPropertyValue<int>("BaseClock");
        EXPECT_EQ(asUser(station.device(), "BaseClock", std::max(clock, 0)), "");
        station.use(station.channels());
        tell("a good run");
        EXPECT_TRUE(station.goodRun());
        for (const auto& [device, folder] : station.impl->daqStructure.getDevicesMap()) {
            EXPECT_EQ(rateOf(folder), device->getRate());
        }
        for (const auto& [channel, hostChannel] : station.impl->daqStructure.getChannelsMap()) {
            EXPECT_EQ(rateOf(hostChannel), channel->getRate()) << hostChannel.getNodeId().toStdString();
        }
        EXPECT_EQ(rateOf(station.dataModule), station.impl->daqController.sampleRate);
    }

    std::mt19937_64 random_;
    int slots_ = 1;
    bool faulty_ = false;
    std::unique_ptr<Station> station_;
    std::unique_ptr<Questioner> questioner_;
};

void walk(uint64_t seed) {
    std::fprintf(stderr, "seed %llu\n", static_cast<unsigned long long>(seed));
    ::alarm(secondsForOne);  // a sequence that hangs ends its program
    try {
        Walk(seed).run();
    } catch (const std::exception& exception) {
        ADD_FAILURE() << exception.what();
    }
    EXPECT_FALSE(isLeaking());
    ::alarm(0);
}

// ---- Several programs ----

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// This test in a program of its own, which keeps in `file` what it says of its last sequence.
pid_t startProgram(const std::string& file, uint64_t seed, uint64_t count) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int output = ::open(file.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_APPEND, 0600);
        ::dup2(output, STDOUT_FILENO);
        ::dup2(output, STDERR_FILENO);
        ::setenv("KESTRIX_WALK_SEED", std::to_string(seed).c_str(), 1);
        ::setenv("KESTRIX_WALK_SEQUENCES", std::to_string(count).c_str(), 1);
        ::setenv("KESTRIX_WALK_PART", "1", 1);
        ::setenv("TSAN_OPTIONS", (environment("TSAN_OPTIONS") + " halt_on_error=1").c_str(), 1);
        ::execl("/proc/self/exe", "test-seams", "--gtest_filter=RandomWalk.*", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

TEST(RandomWalk, EndsInAGoodRun) {
    const std::string seedText = environment("KESTRIX_WALK_SEED");
    const std::string countText = environment("KESTRIX_WALK_SEQUENCES");
    const uint64_t seed = seedText.empty() ? std::random_device()() : std::stoull(seedText);
    const uint64_t count = countText.empty() ? usualSequences : std::stoull(countText);
    const bool isPart = !environment("KESTRIX_WALK_PART").empty();
    if (isPart || count == 1) {
        for (uint64_t i = 0; i < count && !HasFailure(); ++i) {
            if (isPart) {
                ASSERT_EQ(::ftruncate(STDERR_FILENO, 0), 0);
            }
            walk(seed + i);
        }
        return;
    }

    std::printf("KESTRIX_WALK_SEED=%llu\n", static_cast<unsigned long long>(seed));
    std::string folder = (std::filesystem::temp_directory_path() / "kestrix-walk-XXXXXX").string();
    ASSERT_NE(::mkdtemp(folder.data()), nullptr);
    std::vector<std::pair<pid_t, std::string>> started;
    for (uint64_t k = 0; k < programs; ++k) {
        const uint64_t first = k * count / programs;
        const uint64_t last = (k + 1) * count / programs;
        if (first != last) {
            const std::string file = folder + "/" + std::to_string(k);
            started.emplace_back(startProgram(file, seed + first, last - first), file);
        }
    }
    int failures = 0;
    for (const auto& [pid, file] : started) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (status == 0) {
            continue;
        }
        if (++failures > 3) {
            continue;
        }
        std::stringstream text;
        text << std::ifstream(file).rdbuf();
        uint64_t failed = 0;
        std::string word;
        text >> word >> failed;
        ADD_FAILURE() << (WIFSIGNALED(status) ? WTERMSIG(status) == SIGALRM ? "It hangs." : "It crashed." : "")
                      << "\nKESTRIX_WALK_SEED=" << failed << " KESTRIX_WALK_SEQUENCES=1 "
                      << std::filesystem::read_symlink("/proc/self/exe").string() << " --gtest_filter=RandomWalk.*\n"
                      << text.str();
    }
    EXPECT_EQ(failures, 0) << "programs, of " << started.size();
    std::filesystem::remove_all(folder);
}

}  // namespace
