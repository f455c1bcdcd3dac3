// The module's channel shared by the control clients; see
// channel_dispatcher.h.
#include "channel_dispatcher.h"


#include "efrt.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace efhost {

namespace {

constexpr const char *kShowPrefix = "VXLAN-EF-SHOW:";
// A busy module task takes its queue within a run or two; this much is
// generous, and what a client waits at most for one answer.
constexpr std::chrono::milliseconds kProcessTimeout{10000};
constexpr int kWaitSliceMs = 20;

void send_lines(ControlClient &client, uint32_t seq, uint32_t module, std::vector<std::string> &lines)
{
    for (const std::string &line : lines)
        client.send(ctl::Envelope{seq, 0, module, {line.begin(), line.end()}});
    lines.clear();
}

}  // namespace

void ChannelDispatcher::bind(vxlan_ef_vsd_t *instance)
{
    error_flag_.bind(instance);
    tech_dump_.bind(instance);
}

void ChannelDispatcher::start()
{
    efrt::msg_set_sink(&ChannelDispatcher::sink, this);
    efrt::syslog_set_listener(&ChannelDispatcher::on_syslog, this);
    thread_ = std::thread([this] { run(); });
}

void ChannelDispatcher::stop()
{
    {
        std::lock_guard<std::mutex> g(lock_);
        stop_ = true;
        queue_.clear();
    }
    queued_.notify_all();
    if (!thread_.joinable())
        return;
    thread_.join();
    efrt::msg_set_sink(nullptr, nullptr);
    efrt::syslog_set_listener(nullptr, nullptr);
    {
        std::lock_guard<std::mutex> g(out_lock_);
        current_.reset();
        lines_.clear();
        errors_.clear();
    }
    ready_cv_.notify_all();
}

void ChannelDispatcher::submit(const std::shared_ptr<ControlClient> &client, ctl::Envelope env)
{
    if ((env.flags & ctl::kFlagReplyWhenDone) != 0)
        client->request_started();
    {
        std::lock_guard<std::mutex> g(lock_);
        if (stop_)
            return;
        queue_.push_back(Item{client, std::move(env)});
    }
    queued_.notify_all();
}

void ChannelDispatcher::connection(bool up)
{
    {
        std::lock_guard<std::mutex> g(lock_);
        if (!stop_) {
            queue_.push_back(Item{nullptr, {}, up});
            queued_.notify_all();
            return;
        }
    }
    efrt::msg_connect(EF_MSG_MODULE_VXLAN, up);
}

bool ChannelDispatcher::wait_data_ready(const std::atomic<bool> &stop_flag)
{
    std::unique_lock<std::mutex> g(ready_lock_);
    while (!data_ready_.load() && !stop_flag.load())
        ready_cv_.wait_for(g, std::chrono::milliseconds(100));
    return data_ready_.load();
}

// The module's own messages, sent from its task while it processes the
// current client's messages.
int ChannelDispatcher::sink(const ef_msg_t *msg, void *ctx)
{
    auto *self = static_cast<ChannelDispatcher *>(ctx);
    self->note_data_ready(msg->data, msg->len);
    std::lock_guard<std::mutex> g(self->out_lock_);
    if (self->current_ != nullptr)
        self->current_->send(ctl::Envelope{0, 0, ctl::kModuleVxlan, {msg->data, msg->data + msg->len}});
    return 0;
}

void ChannelDispatcher::note_data_ready(const uint8_t *payload, uint32_t len)
{
    if (!message_has_tlv(payload, len, vxlan_ef::tlv::kEfDataReady))
        return;
    std::lock_guard<std::mutex> g(ready_lock_);
    data_ready_ = true;
    ready_cv_.notify_all();
}

void ChannelDispatcher::on_syslog(const std::string &text, void *ctx)
{
    auto *self = static_cast<ChannelDispatcher *>(ctx);
    const bool show = text.rfind(kShowPrefix, 0) == 0;
    if (!show && !is_module_error_line(text))
        return;
    std::lock_guard<std::mutex> g(self->out_lock_);
    if (self->current_ != nullptr)
        (show ? self->lines_ : self->errors_).push_back(text);
}

void ChannelDispatcher::run()
{
    Item item;
    while (take_next(item)) {
        if (item.client == nullptr) {
            efrt::msg_connect(EF_MSG_MODULE_VXLAN, item.up);
            continue;
        }
        deliver(item);
        if ((item.env.flags & ctl::kFlagReplyWhenDone) != 0) {
            answer(item.env.seq, wait_processed());
            item.client->request_finished();
        }
        item = Item{};
    }
}

// The next item: a change of the channel, the current client's next message,
// or, once the current run has ended, the oldest message. False when
// stopping.
bool ChannelDispatcher::take_next(Item &item)
{
    std::unique_lock<std::mutex> lk(lock_);
    while (!stop_) {
        std::shared_ptr<ControlClient> current;
        {
            std::lock_guard<std::mutex> g(out_lock_);
            current = current_;
        }
        if (!queue_.empty() && (current == nullptr || queue_.front().client == current ||
                                queue_.front().client == nullptr)) {
            item = std::move(queue_.front());
            queue_.pop_front();
            return true;
        }
        if (current == nullptr) {
            queued_.wait(lk);
            continue;
        }
        // The run ends once the module has processed it; meanwhile more of
        // the same client's messages may join it.
        if (queue_.empty()) {
            queued_.wait_for(lk, std::chrono::milliseconds(kWaitSliceMs));
        } else if (efrt::tasks_completed_runs() < processed_at_) {
            lk.unlock();
            efrt::tasks_wait_runs(processed_at_, kWaitSliceMs);
            lk.lock();
        }
        if (!queue_.empty() && queue_.front().client == current)
            continue;
        if (efrt::tasks_completed_runs() >= processed_at_) {
            lk.unlock();
            end_run();
            lk.lock();
        }
    }
    return false;
}

void ChannelDispatcher::deliver(const Item &item)
{
    bool starts_run = false;
    {
        std::lock_guard<std::mutex> g(out_lock_);
        if (current_ == nullptr) {
            current_ = item.client;
            lines_.clear();
            errors_.clear();
            starts_run = true;
        }
    }
    if (starts_run)
        error_flag_.run_started(item.env.payload);
    else
        error_flag_.run_continued(item.env.payload);
    tech_dump_.delivering(item.env.payload);
    efrt::msg_deliver(EF_MSG_MODULE_VXLAN, item.env.payload);
    processed_at_ = efrt::tasks_next_full_run();
}

// Waits until the module has processed everything delivered; false after
// the timeout or when stopping.
bool ChannelDispatcher::wait_processed()
{
    const auto give_up = std::chrono::steady_clock::now() + kProcessTimeout;
    while (!stop_ && std::chrono::steady_clock::now() < give_up)
        if (efrt::tasks_wait_runs(processed_at_, kWaitSliceMs))
            return true;
    return false;
}

// The show and error lines printed so far and the done envelope of one
// request.
void ChannelDispatcher::answer(uint32_t seq, bool processed)
{
    const std::string status = processed ? tech_dump_.outcome().value_or("")
                                          : "error: the module did not take the request within " +
                                                std::to_string(kProcessTimeout.count() / 1000) + " s";
    std::lock_guard<std::mutex> g(out_lock_);
    if (current_ == nullptr)
        return;
    send_lines(*current_, seq, ctl::kModuleShowLine, lines_);
    send_lines(*current_, seq, ctl::kModuleErrorLine, errors_);
    current_->send(ctl::Envelope{seq, 0, ctl::kModuleDone, {status.begin(), status.end()}});
}

// Lines printed for messages that asked for no answer still go to their
// client; then the module is free for the next client.
void ChannelDispatcher::end_run()
{
    error_flag_.run_ended();
    std::lock_guard<std::mutex> g(out_lock_);
    if (current_ != nullptr) {
        send_lines(*current_, 0, ctl::kModuleShowLine, lines_);
        send_lines(*current_, 0, ctl::kModuleErrorLine, errors_);
    }
    lines_.clear();
    errors_.clear();
    current_.reset();
}

}  // namespace efhost
