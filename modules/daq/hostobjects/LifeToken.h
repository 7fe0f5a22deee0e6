#pragma once

#include <memory>
#include <utility>

#include <zorn/types/callable.h>

namespace Harvane::RT::Modules::Daq {

// Functions that the module puts on host objects stay there when the module is gone. They hold this token weakly, and
// nothing else of the module's that would keep it alive, and answer InvalidState (0x80000029) once it has ended.
// Not for calls that run at the same time as end(): properties belong to one thread.
class LifeToken {
public:
    LifeToken() = default;
    LifeToken(const LifeToken&) = delete;
    LifeToken& operator=(const LifeToken&) = delete;

    // The body of a host function or procedure, run only as long as the owner of the token lives.
    template <class Body>
    auto guard(Body body) const {
        return [life = std::weak_ptr<Life>(life_), body = std::move(body)](auto&... arguments) -> Core::ErrCode {
            if (life.expired()) {
                return Core::makeError(Core::Errors::InvalidState, "The data acquisition module is gone.");
            }
            return body(arguments...);
        };
    }
    std::weak_ptr<void> watch() const { return life_; }
    void end() { life_.reset(); }

private:
    struct Life {};
    std::shared_ptr<Life> life_ = std::make_shared<Life>();
};

}  // namespace Harvane::RT::Modules::Daq
