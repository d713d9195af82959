#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace Velmora::Worksurface {

// Gives out a new handle owned by a shared_ptr whose deleter calls deleteLater. Handles
// live on the user-interface side; deleteLater lets a handle that is still in the middle
// of delivering a signal finish before it goes.
template <typename Handle, typename... Args>
std::shared_ptr<Handle> makeHandle(Args&&... args)
{
    return std::shared_ptr<Handle>(new Handle(std::forward<Args>(args)...),
                                   [](Handle* handle) { handle->deleteLater(); });
}

// Takes the component's current handle, if any, out of `current` under `mutex` and
// detaches it with the mutex released: detaching calls back into the component, and the
// last reference may go with it.
template <typename Handle>
void detachCurrentHandle(std::mutex& mutex, std::shared_ptr<Handle>& current)
{
    std::shared_ptr<Handle> previous;
    {
        std::lock_guard<std::mutex> lock(mutex);
        previous = std::move(current);
    }
    if (previous) {
        previous->detach();
        previous.reset();
    }
}

}  // namespace Velmora::Worksurface
