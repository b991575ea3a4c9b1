#ifndef KRO_LOG_SPLITTER_H
#define KRO_LOG_SPLITTER_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>

#include <Poco/AutoPtr.h>
#include <Poco/Message.h>
#include <Poco/SplitterChannel.h>

#include "Logger.h"

namespace kro
{

/// Lets many readers use a shared object while one writer replaces it: a reader pays two additions on a cache
/// line that it shares with few others, and the writer learns when nobody can hold the former object any
/// more.
///
/// Each reader counts itself in and out of the phase that it finds. The writer, having replaced the object,
/// turns the phase and waits for the count of the former one to fall to zero, twice: a reader that holds the
/// former object was counted, before it read, in one of the two. New readers count in the other phase, so
/// that a stream of them can't keep the writer waiting.
class ReaderGate
{
public:
    class Section
    {
    public:
        explicit Section(ReaderGate& gate);
        ~Section() { count.fetch_sub(1, std::memory_order_release); }
        Section(const Section&) = delete;
        Section& operator=(const Section&) = delete;

    private:
        std::atomic<unsigned>& count;
    };

    /// Returns when every section has ended that was open at the call. One caller at a time.
    void wait();

    /// Forgets all open sections: in the child of a fork their threads are gone.
    void reset();

private:
    static constexpr std::size_t kStripes = 16;
    struct alignas(64) Stripe
    {
        std::atomic<unsigned> inside[2] = {{0}, {0}};
    };

    std::atomic<unsigned>& counter();

    std::atomic<unsigned> phase{0};
    std::array<Stripe, kStripes> stripes;
};

/// The splitter below the formatter: it has two branches, the file's and the console's, and replaces both at
/// once while other threads log. POCO's own replacement (of a logger's channel, a splitter's branch) is a
/// data race with a thread that logs, or takes its lock for each line.
///
/// It stays for the whole process, as the logger, the formatting channel and the formatter above it do: they
/// have no state that a day could change, and threads keep references to the logger. Only what is below is
/// renewed. Poco::SplitterChannel's list shows the branches in use; lines don't go by that list.
class LogSplitter : public Poco::SplitterChannel
{
public:
    using Branch = Poco::AutoPtr<NonBlockingLoggerChannel>;

    LogSplitter() = default;

    /// Puts new branches in place of the former ones. Each line goes to both former or to both new ones.
    /// Returns when the former ones have written all that they had accepted. One caller at a time.
    void renew(Branch file, Branch console);

    /// File branch first. Before the first renew(), and in the child of a fork, the line is discarded. Any
    /// thread.
    void log(const Poco::Message& message) override;
    void log(Poco::Message&& message);

    /// Waits until both branches have written what was logged before the call. A branch that gets nothing
    /// written for `patience` is given up, and the console after three times as long in any case.
    void flush(std::chrono::milliseconds patience);

    /// At the end of the process, as flush(), but no line comes after it: they are discarded from here on, so
    /// that nothing reaches channels of POCO's whose statics go next.
    void finish(std::chrono::milliseconds patience);

    bool isOpen() const { return current.load() != nullptr; }  ///< false where lines are discarded

    /// In the child of a fork, where the workers don't exist: lets go of the branches without destroying
    /// them.
    void abandon();

protected:
    ~LogSplitter() override;

private:
    friend struct LoggerTestAccess;

    struct Branches
    {
        Branch console;
        Branch file;  // goes first: its worker may have to wake the console's
        std::unique_ptr<Branches>
            abandoned_before;  // never destroyed: destroying it would wait for a dead worker
    };

    ReaderGate gate;                          // held while current's target is in use
    std::atomic<Branches*> current{nullptr};  // replaced with one store: needs no lock
    std::unique_ptr<Branches> abandoned;      // the parent's branches, in the child of a fork
};

}  // namespace kro

#endif
