#include "base/WarningLimit.h"

#include <QElapsedTimer>
#include <QMessageLogger>

namespace lumenlog {

namespace {

qint64 nowMs()
{
    static const QElapsedTimer clock = [] {
        QElapsedTimer timer;
        timer.start();
        return timer;
    }();
    return clock.elapsed();
}

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

}  // namespace

QString warningKey(const char* category, const QString& text)
{
    QString key = QString::fromLatin1(category) + QLatin1Char(':');
    key.reserve(key.size() + text.size());
    int i = 0;
    while (i < text.size()) {
        const bool sign = text[i] == QLatin1Char('-') && i + 1 < text.size() && isDigit(text[i + 1]);
        if (!sign && !isDigit(text[i])) {
            key += text[i++];
            continue;
        }
        i += sign ? 1 : 0;
        while (i < text.size() && isDigit(text[i]))
            ++i;
        if (i + 1 < text.size() && text[i] == QLatin1Char('.') && isDigit(text[i + 1])) {
            for (++i; i < text.size() && isDigit(text[i]);)
                ++i;
        }
        key += QLatin1Char('#');
    }
    return key;
}

WarningLimiter::Verdict WarningLimiter::admit(const QString& key, const QString& site, qint64 now)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto message = messages_.find(key);
    if (message == messages_.end()) {
        makeRoom(now);
        if (messages_.size() < kMaxMessages) {
            messages_.insert(key, now);
            if (!sites_.contains(site))
                sites_.insert(site, Site{now, 0});  // its repeats wait from here
            return Verdict{};
        }
    } else {
        message.value() = now;
    }
    auto place = sites_.find(site);
    if (place == sites_.end()) {
        sites_.insert(site, Site{now, 0});
        return Verdict{};
    }
    Site& s = place.value();
    if (now - s.writtenMs < kWarningIntervalMs) {
        ++s.leftOut;
        return Verdict{false, s.leftOut, now - s.writtenMs};
    }
    const Verdict verdict{true, s.leftOut, now - s.writtenMs};
    s = Site{now, 0};
    return verdict;
}

// Forgets messages not seen for the interval.
void WarningLimiter::makeRoom(qint64 now)
{
    if (messages_.size() < kMaxMessages)
        return;
    for (auto it = messages_.begin(); it != messages_.end();) {
        if (now - it.value() >= kWarningIntervalMs)
            it = messages_.erase(it);
        else
            ++it;
    }
}

void WarningLimiter::reset()
{
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.clear();
    sites_.clear();
}

WarningLimiter& warningLimiter()
{
    static WarningLimiter limiter;
    return limiter;
}

void resetWarningLimits()
{
    warningLimiter().reset();
}

LimitedWarning::LimitedWarning(const QLoggingCategory& category, const char* site, int siteLine, const char* file,
                               int line, const char* function)
    : category_(category), site_(site), siteLine_(siteLine), file_(file), line_(line), function_(function)
{
    debug_.emplace(&text_);
}

LimitedWarning::~LimitedWarning()
{
    debug_.reset();  // the last holder of the stream: the text is complete now
    if (text_.endsWith(QLatin1Char(' ')))
        text_.chop(1);
    const QString site = QStringLiteral("%1:%2").arg(QLatin1String(site_)).arg(siteLine_);
    const WarningLimiter::Verdict verdict =
        warningLimiter().admit(warningKey(category_.categoryName(), text_), site, nowMs());
    if (!verdict.write)
        return;
    if (verdict.leftOut > 0)
        text_ += QStringLiteral(" (%1 more like it left out in the last %2 s)")
                     .arg(verdict.leftOut)
                     .arg(verdict.sinceMs / 1000);
    QMessageLogger(file_, line_, function_).warning(category_).noquote() << text_;
}

}  // namespace lumenlog
