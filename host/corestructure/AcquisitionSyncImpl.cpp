#include <atomic>
#include <cstring>

#include <pthread.h>

#include <zorn/structure/module.h>
#include <zorn/types/object_impl.h>

namespace Harvane::RT::Core {

namespace {

// Its address tells one thread from the others.
thread_local char threadMark = 0;

// A lock that says so instead of hanging or corrupting itself when it is misused, and that lends the holder the
// priority of a cycle that waits for it.
class AcquisitionSyncImpl final : public ObjectImpl<IAcquisitionSync> {
public:
    AcquisitionSyncImpl() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
        const int error = pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
        if (error != 0) {
            throw GeneralErrorException("The acquisition lock can't be made: %s", std::strerror(error));
        }
    }
    ~AcquisitionSyncImpl() override { pthread_mutex_destroy(&mutex_); }

    ErrCode lock() override {
        if (holder_.load(std::memory_order_relaxed) == &threadMark) {
            return makeError(Errors::InvalidState, "This thread holds the acquisition lock already", self());
        }
        if (pthread_mutex_lock(&mutex_) != 0) {
            return plainError(Errors::GeneralError);
        }
        holder_.store(&threadMark, std::memory_order_relaxed);
        return Errors::Success;
    }

    ErrCode unlock() override {
        if (holder_.load(std::memory_order_relaxed) != &threadMark) {
            return makeError(Errors::InvalidState, "This thread doesn't hold the acquisition lock", self());
        }
        holder_.store(nullptr, std::memory_order_relaxed);
        return pthread_mutex_unlock(&mutex_) == 0 ? Errors::Success : Errors::GeneralError;
    }

private:
    pthread_mutex_t mutex_;
    // Other threads only learn that it isn't them.
    std::atomic<const char*> holder_{nullptr};
};

}  // namespace

ErrCode createAcquisitionSync(IAcquisitionSync** sync) {
    return createObject<AcquisitionSyncImpl>(sync);
}

}  // namespace Harvane::RT::Core
