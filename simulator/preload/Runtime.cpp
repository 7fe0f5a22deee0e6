#include "simulator/preload/Runtime.h"

#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "simulator/model/ScenarioJson.h"
#include "simulator/preload/DescriptorTable.h"
#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/PtpSocket.h"
#include "simulator/preload/ServedTime.h"
#include "simulator/preload/UartFile.h"

namespace kestrixsim {

constinit thread_local int Entry::depth_ = 0;

namespace runtime {
namespace {

struct Root {
    std::string folder;
    pid_t owner;
    int lock;
};

constinit std::mutex mutex;
constinit std::atomic<Instrument*> current{nullptr};
constinit std::atomic<Root*> currentRoot{nullptr};
constinit std::atomic<pid_t> process{0};
constinit std::atomic<bool> ending{false};

// What must outlive every static destructor, and stay reachable for a leak checker.
struct Kept {
    std::optional<Scenario> chosen;      // by reset()
    std::vector<Instrument*> abandoned;  // by a fork: their threads and locks are the parent's
    std::vector<Root*> formerRoots;
};
constinit std::atomic<Kept*> keptStore{nullptr};

Kept& kept() {  // under the lock
    Kept* found = keptStore.load(std::memory_order_acquire);
    if (found == nullptr) {
        found = new Kept;
        keptStore.store(found, std::memory_order_release);
    }
    return *found;
}

void beforeFork() {
    mutex.lock();
}

void afterForkInParent() {
    mutex.unlock();
}

void afterForkInChild() {
    process.store(getpid(), std::memory_order_relaxed);
    if (Instrument* old = current.exchange(nullptr)) {
        kept().abandoned.push_back(old);
    }
    if (Root* old = currentRoot.exchange(nullptr)) {
        next::close(old->lock);  // the parent's lock ends with the parent
        kept().formerRoots.push_back(old);
    }
    PtpSocket::abandon();
    mutex.unlock();
}

// Under the lock.
void start() {
    if (process.load(std::memory_order_relaxed) == 0) {
        process.store(getpid(), std::memory_order_relaxed);
        pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
    }
}

Scenario initialScenario() {
    const char* file = std::getenv("KESTRIX_SIM_SCENARIO");
    return file != nullptr && *file != '\0' ? ScenarioJson::read(file) : Scenario::standard();
}

Instrument& made() {
    if (Instrument* found = current.load(std::memory_order_acquire)) {
        return *found;
    }
    const Entry entry;
    const std::scoped_lock guard(mutex);
    start();
    if (current.load(std::memory_order_acquire) == nullptr) {
        Kept& store = kept();
        const Scenario scenario = store.chosen ? *store.chosen : initialScenario();
        servedtime::adopt(scenario, true);
        current.store(new Instrument(scenario, servedtime::machineSeconds, true), std::memory_order_release);
    }
    return *current.load(std::memory_order_acquire);
}

void removeRoot(Root* root) {
    if (root != nullptr && root->owner == getpid()) {
        std::error_code ignored;
        std::filesystem::remove_all(root->folder, ignored);
        next::close(root->lock);
    }
}

constexpr std::string_view rootPrefix = "kestrix-sim.";

// Opens a folder and locks it without waiting; -1 if another process has it. The descriptor stands far up, where it is
// in nobody's way.
int lockFolder(const std::string& folder) {
    const int low = next::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    const int high = low >= 0 ? next::fcntl(low, F_DUPFD_CLOEXEC, 900) : -1;
    int fd = low;
    if (high >= 0) {
        next::close(low);
        fd = high;
    }
    if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0) {
        next::close(fd);
        fd = -1;
    }
    return fd;
}

// A process that crashed or called _exit left its folder behind. The lock of a folder ends with its process.
void sweep(const std::filesystem::path& parent) {
    std::error_code ignored;
    for (std::filesystem::directory_iterator entry(parent, ignored), end; !ignored && entry != end;
         entry.increment(ignored)) {
        const std::string folder = entry->path().string();
        struct stat status {};
        if (!entry->path().filename().string().starts_with(rootPrefix) || next::lstat(folder.c_str(), &status) != 0 ||
            !S_ISDIR(status.st_mode) || status.st_uid != geteuid() || next::time(nullptr) - status.st_mtime < 60) {
            continue;  // a folder that was made just now may not be locked yet
        }
        // A program that closes every descriptor it doesn't know has lost the lock, but lives.
        const auto owner = static_cast<pid_t>(std::atol(entry->path().filename().c_str() + rootPrefix.size()));
        if (owner > 0 && (kill(owner, 0) == 0 || errno == EPERM)) {
            continue;
        }
        if (const int lock = lockFolder(folder); lock >= 0) {
            std::error_code failed;
            std::filesystem::remove_all(folder, failed);
            next::close(lock);
        }
    }
}

// A process that ends takes its root folder with it. A forked child owns none until it makes its own.
__attribute__((destructor)) void end() {
    const Entry entry;
    ending.store(true);
    // Not freed, since another thread may still hold its name; kept in sight of leak checkers.
    static std::atomic<Root*> last{nullptr};
    last.store(currentRoot.exchange(nullptr));
    removeRoot(last.load());
}

[[noreturn]] void giveUp(const char* reason) {
    const std::string text = std::string("kestrix-sim: ") + reason + "\n";
    (void)!next::write(2, text.data(), text.size());
    _exit(78);
}

}  // namespace

std::mutex& lock() {
    return mutex;
}

Instrument& get() {
    try {
        return made();
    } catch (const std::exception& error) {
        giveUp(error.what());
    }
}

Instrument* existing() {
    return current.load(std::memory_order_acquire);
}

const std::string* rootInPlace() {
    Root* found = currentRoot.load(std::memory_order_acquire);
    return found != nullptr ? &found->folder : nullptr;
}

const std::string* root() {
    if (Root* found = currentRoot.load(std::memory_order_acquire)) {
        return &found->folder;
    }
    if (ending.load()) {
        return nullptr;
    }
    Instrument& model = get();
    const Entry entry;
    const std::scoped_lock guard(mutex);
    if (Root* found = currentRoot.load(std::memory_order_acquire)) {
        return &found->folder;
    }
    try {
        const char* temporary = std::getenv("TMPDIR");
        const std::string parent = temporary != nullptr && *temporary == '/' ? temporary : "/tmp";
        sweep(parent);
        std::string folder = parent + "/" + std::string(rootPrefix) + std::to_string(getpid()) + ".XXXXXX";
        if (mkdtemp(folder.data()) == nullptr) {
            return nullptr;
        }
        auto* root = new Root{folder, getpid(), lockFolder(folder)};
        try {
            model.populateRoot(folder);
        } catch (...) {
            removeRoot(root);
            delete root;
            throw;
        }
        currentRoot.store(root, std::memory_order_release);
        return &root->folder;
    } catch (const std::exception& error) {
        giveUp(error.what());
    }
}

bool ownsProcess() {
    const pid_t owner = process.load(std::memory_order_relaxed);
    return owner == 0 || owner == getpid();
}

}  // namespace runtime

Instrument& instrument() {
    return runtime::made();
}

namespace {

Instrument& replace(Scenario scenario, std::unique_ptr<Instrument> (*make)(const Scenario&, void*), void* source) {
    if (const int open = openDescriptors(); open != 0) {
        throw std::logic_error("kestrix-sim: the instrument cannot be replaced, " + std::to_string(open) +
                               " of its descriptors are open");
    }
    const Entry entry;
    auto fresh = make(scenario, source);
    Instrument* old = nullptr;
    runtime::Root* oldRoot = nullptr;
    {
        const std::scoped_lock guard(runtime::mutex);
        runtime::start();
        runtime::kept().chosen = std::move(scenario);
        old = runtime::current.exchange(fresh.release());
        oldRoot = runtime::currentRoot.exchange(nullptr);
        if (oldRoot != nullptr) {
            runtime::kept().formerRoots.push_back(oldRoot);
        }
        UartFile::restorePort();
        PtpSocket::abandon();
    }
    delete old;
    runtime::removeRoot(oldRoot);
    return *runtime::current.load();
}

}  // namespace

Instrument& reset(Scenario scenario) {
    return replace(
        std::move(scenario),
        [](const Scenario& plan, void*) {
            servedtime::adopt(plan, true);
            return std::make_unique<Instrument>(plan, servedtime::machineSeconds, true);
        },
        nullptr);
}

Instrument& reset(Scenario scenario, std::function<double()> now) {
    return replace(
        std::move(scenario),
        [](const Scenario& plan, void* source) {
            servedtime::adopt(plan, false);
            return std::make_unique<Instrument>(plan, std::move(*static_cast<std::function<double()>*>(source)));
        },
        &now);
}

std::string rootFolder() {
    const std::string* folder = runtime::root();
    return folder != nullptr ? *folder : std::string();
}

int openDescriptors() {
    return DescriptorTable::count();
}

}  // namespace kestrixsim
