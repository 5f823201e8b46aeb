// The public face: no exception leaves.

#include "quilclient/push_client.hpp"

#include "client/push_client_impl.hpp"

namespace quilclient {

namespace {

Result outOfMemory() noexcept {
    Result result;
    result.code = kSystemError;
    result.words = "out of memory";  // short enough to need none
    return result;
}

// Runs `work`; an exception becomes a result.
template <typename Work>
Result guarded(Work work) noexcept {
    try {
        return work();
    } catch (...) {
        return outOfMemory();
    }
}

}  // namespace

// A class of the header's own, so that the header names nothing of what is behind it.
class __attribute__((visibility("hidden"))) PushClient::Impl : public PushClientImpl {
  public:
    using PushClientImpl::PushClientImpl;
};

PushClient::PushClient(Config config, Handlers handlers)
    : m_impl(std::make_unique<Impl>(std::move(config), std::move(handlers))) {}
PushClient::~PushClient() = default;
PushClient::PushClient(PushClient&&) noexcept = default;
PushClient& PushClient::operator=(PushClient&&) noexcept = default;

Result PushClient::run() noexcept {
    return guarded([this] { return m_impl->run(); });
}

void PushClient::stop() noexcept {
    m_impl->stop();
}

int PushClient::descriptor() const noexcept {
    return m_impl->descriptor();
}

std::chrono::milliseconds PushClient::untilDue() const noexcept {
    return m_impl->untilDue();
}

Result PushClient::dispatch() noexcept {
    return guarded([this] { return m_impl->dispatch(); });
}

Result PushClient::accept(const std::string& id) noexcept {
    return guarded([&] { return m_impl->answerPush(Verb::AcceptPush, id); });
}

Result PushClient::reject(const std::string& id) noexcept {
    return guarded([&] { return m_impl->answerPush(Verb::RejectPush, id); });
}

Result PushClient::setLaunchString(const std::string& launchString) noexcept {
    if (launchString.empty()) {
        return guarded([] { return Result{kBadArgument, "the launch string is empty"}; });
    }
    return guarded([&] { return m_impl->wishLaunch(launchString); });
}

Result PushClient::clearLaunchString() noexcept {
    return guarded([this] { return m_impl->wishLaunch(""); });
}

Result PushClient::destroyChannel() noexcept {
    return guarded([this] { return m_impl->destroyChannel(); });
}

Result PushClient::createChannel() noexcept {
    return guarded([this] { return m_impl->createChannel(); });
}

bool PushClient::isReady() const noexcept {
    return m_impl->isReady();
}

bool PushClient::hasUnsent() const noexcept {
    return m_impl->hasUnsent();
}

}  // namespace quilclient
