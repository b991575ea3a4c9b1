#include "LogSplitter.h"

#include <thread>
#include <utility>

namespace kro
{

std::atomic<unsigned>& ReaderGate::counter()
{
    static std::atomic<std::size_t> s_threads{0};
    // No destructor, so it serves until the thread's very end.
    thread_local const std::size_t t_stripe = s_threads.fetch_add(1, std::memory_order_relaxed) % kStripes;
    return stripes[t_stripe].inside[phase.load(std::memory_order_relaxed) & 1u];
}

// Sequentially consistent, like the replacement of the object and the reads in wait(): either wait() sees
// this section, or the section sees the new object. A stale phase does no harm, since wait() looks at both.
ReaderGate::Section::Section(ReaderGate& gate) : count(gate.counter())
{
    count.fetch_add(1);
}

void ReaderGate::wait()
{
    for (int turn = 0; turn < 2; ++turn) {
        const unsigned former = phase.fetch_add(1) & 1u;
        for (Stripe& stripe : stripes) {
            // Once a day, for the moment that a thread takes to queue a line: not worth a signal from each
            // line.
            while (stripe.inside[former].load() != 0)
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }
}

void ReaderGate::reset()
{
    for (Stripe& stripe : stripes) {
        for (auto& inside : stripe.inside) inside = 0;
    }
}

LogSplitter::~LogSplitter()
{
    delete current.load();
}

void LogSplitter::renew(Branch file, Branch console)
{
    auto next = std::make_unique<Branches>();
    next->file = std::move(file);
    next->console = std::move(console);
    addChannel(next->file);
    addChannel(next->console);
    const std::unique_ptr<Branches> former(current.exchange(next.release()));
    gate.wait();
    for (const Branches* old : {former.get(), abandoned.get()}) {
        if (old == nullptr) continue;
        removeChannel(old->file);
        removeChannel(old->console);
    }
    // Here the last references to the former branches go: their destructors write out what they hold.
}

void LogSplitter::log(const Poco::Message& message)
{
    log(Poco::Message(message));
}

void LogSplitter::log(Poco::Message&& message)
{
    const ReaderGate::Section section(gate);
    Branches* const branches = current.load();
    if (branches == nullptr) return;
    NonBlockingLoggerChannel::logBoth(*branches->file, *branches->console, std::move(message));
}

void LogSplitter::flush(std::chrono::milliseconds patience)
{
    Branch console;
    Branch file;  // goes first: its worker may wake the console's
    {
        const ReaderGate::Section section(gate);
        const Branches* const branches = current.load();
        if (branches == nullptr) return;
        file = branches->file;
        console = branches->console;
    }
    file->waitWritten(patience);
    console->waitWritten(patience, 3 * patience);
}

void LogSplitter::finish(std::chrono::milliseconds patience)
{
    Branches* const last = current.exchange(nullptr);
    gate.wait();  // no line is on its way to them any more
    if (last == nullptr) return;
    last->file->waitWritten(patience);
    last->console->waitWritten(patience, 3 * patience);
    // Not destroyed: that would wait for a console that nobody reads.
    last->abandoned_before = std::move(abandoned);
    abandoned.reset(last);
}

void LogSplitter::abandon()
{
    gate.reset();
    Branches* const lost = current.exchange(nullptr);
    if (lost == nullptr) return;
    lost->abandoned_before = std::move(abandoned);
    abandoned.reset(lost);
}

}  // namespace kro
