// System log: every printk_syslog_ext call becomes one record holding the text
// exactly as formatted; optionally each text is appended to a file as well.
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "ef_syslog.h"
#include "efrt.h"

namespace {

struct Log {
    std::mutex lock;
    std::vector<efrt::LogRecord> records;
    FILE *file = nullptr;
    std::string time_text;
    efrt::SyslogListener listener = nullptr;
    void *listener_ctx = nullptr;
    bool keep = true;
};

Log &syslog_state()
{
    static Log l;
    return l;
}

std::string format_text(const char *fmt, va_list ap)
{
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n < 0)
        return {};
    std::string text(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), fmt, ap);
    text.resize(static_cast<size_t>(n));
    return text;
}

}  // namespace

extern "C" int printk_syslog_ext(int level, const char *module, const char *tag, int flag,
                                 const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string text = format_text(fmt, ap);
    va_end(ap);
    Log &l = syslog_state();
    std::lock_guard<std::mutex> g(l.lock);
    if (l.file != nullptr) {
        std::fputs(text.c_str(), l.file);
        if (text.empty() || text.back() != '\n')
            std::fputc('\n', l.file);
        std::fflush(l.file);
    }
    if (l.listener != nullptr)
        l.listener(text, l.listener_ctx);
    if (l.keep)
        l.records.push_back(efrt::LogRecord{level, module ? module : "", tag ? tag : "", flag,
                                            std::move(text)});
    return 0;
}

extern "C" int syslog_get_current_time(char *buf, int len, int)
{
    if (buf == nullptr || len <= 0)
        return 0;
    Log &l = syslog_state();
    {
        std::lock_guard<std::mutex> g(l.lock);
        if (!l.time_text.empty())
            return std::snprintf(buf, static_cast<size_t>(len), "%s", l.time_text.c_str());
    }
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    return static_cast<int>(std::strftime(buf, static_cast<size_t>(len), "%Y-%m-%d %H:%M:%S", &tm));
}

namespace efrt {

std::vector<LogRecord> syslog_records()
{
    std::lock_guard<std::mutex> g(syslog_state().lock);
    return syslog_state().records;
}

std::vector<LogRecord> syslog_take()
{
    std::lock_guard<std::mutex> g(syslog_state().lock);
    std::vector<LogRecord> out;
    out.swap(syslog_state().records);
    return out;
}

std::vector<std::string> syslog_texts()
{
    std::vector<std::string> out;
    for (const auto &r : syslog_records())
        out.push_back(r.text);
    return out;
}

bool syslog_set_file(const std::string &path)
{
    Log &l = syslog_state();
    std::lock_guard<std::mutex> g(l.lock);
    if (l.file != nullptr)
        std::fclose(l.file);
    l.file = path.empty() ? nullptr : std::fopen(path.c_str(), "a");
    return path.empty() || l.file != nullptr;
}

void syslog_set_time_text(const std::string &text)
{
    std::lock_guard<std::mutex> g(syslog_state().lock);
    syslog_state().time_text = text;
}

void syslog_reset()
{
    Log &l = syslog_state();
    std::lock_guard<std::mutex> g(l.lock);
    l.records.clear();
    l.time_text.clear();
    l.keep = true;
}

void syslog_set_listener(SyslogListener fn, void *ctx)
{
    std::lock_guard<std::mutex> g(syslog_state().lock);
    syslog_state().listener = fn;
    syslog_state().listener_ctx = ctx;
}

void syslog_set_keep(bool keep)
{
    std::lock_guard<std::mutex> g(syslog_state().lock);
    syslog_state().keep = keep;
}

}  // namespace efrt
