#ifndef KRO_SAFEGUARDS_H
#define KRO_SAFEGUARDS_H

#include "KroApi.h"

namespace kro
{

/// What a host may ask of the library where its settled behaviour ends the process, stalls or leaks. Each bit
/// stands for one behaviour, and none is set by default. What each costs is told in docs/hosting.md.
enum Safeguard : unsigned
{
    /// A full pool makes messages, due tasks and connection work wait for a thread, instead of ending the
    /// process, stopping a client or losing a task.
    kWaitForThread = 1u << 0,
    /// A pool thread that has ended a message handler takes the next waiting message itself.
    kDrainInPlace = 1u << 1,
    /// ThreadPool releases a task and its captures when the task has run, in constant time, whoever owns the
    /// pool.
    kReleaseAdapters = 1u << 2,
    /// The payloads of messages that still wait when a client ends are released once, not twice.
    kSingleRelease = 1u << 3,
    /// A reconnection that fails before Paho can answer is followed by the next one.
    kKeepTrying = 1u << 4,
    /// A client ends as soon as it is safe, instead of after fixed waits.
    kPromptTeardown = 1u << 5,
    /// Clients speak MQTT 3.1.1 and nothing else.
    kPinProtocol = 1u << 6,
    /// A re-subscription asks for the highest QoS that the host asked for, and its refusal is logged.
    kKeepQos = 1u << 7,
    /// Topic filters match as MQTT 3.1.1 section 4.7 has it, all matching ones, each handler once.
    kTopicMatching = 1u << 8,
    /// The last reference to a client may be dropped on any thread, its own and the pool's included.
    kSafeLifetime = 1u << 9,
    /// The watch of a periodic task looks when its time-out is over, and ends with the run.
    kWatchTimeouts = 1u << 10,
    /// Every HTTP request whose head can be read gets an answer in the JSON envelope, in one piece with its
    /// length; none whose body breaks off reaches a handler.
    kAnswerAlways = 1u << 11,
    /// A request body over 8 MiB is answered with 413 and not read.
    kBoundedRequests = 1u << 12,
    /// saveConfig leaves either the old file or the new one, whole.
    kWholeFiles = 1u << 13,
    /// The daily renewal of the log survives an early wake, and deleteLogger never waits for midnight.
    kSteadyMidnight = 1u << 14,
    /// ping and kill go without a shell.
    kNoShell = 1u << 15,
};

/// All of the above. A host that has no habits to keep wants them.
constexpr unsigned kAllSafeguards = (1u << 16) - 1;

/// Chooses the safeguards of the whole process. Call it first in main, before anything else of the library:
/// what is at work already may go by the old choice, the new one or parts of both. Any thread.
/// @param bits  Safeguard values joined with `|`; 0 for the settled behaviour. Bits that stand for nothing are
///              kept and have no effect.
KRO_API void setSafeguards(unsigned bits);

/// @return the bits in force. Any thread; one relaxed load.
KRO_API unsigned safeguards();

/// @return whether `safeguard` is in force. Any thread; one relaxed load.
KRO_API bool safeguarded(Safeguard safeguard);

}  // namespace kro

#endif
