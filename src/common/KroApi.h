#ifndef KRO_API_H
#define KRO_API_H

/// @mainpage
/// Begin with kro::MqttClient, kro::WebApiBasic, kro::PeriodicTaskManager or kro::loadLogging(), and with
/// kro::setSafeguards(), the first call of a host. Each class tells its contract: its threads, its limits, and
/// what may be called from a callback. docs/hosting.md sets them side by side, with hosts to start from.

/// @file
/// What the other headers share.

/// All of the library but makeJsonDefault() and the log macros.
namespace kro
{
}

/// Marks what the library exports. Everything else is built with hidden visibility, so that a host can
/// neither link against internals nor clash with them.
#define KRO_API __attribute__((visibility("default")))

/// Takes a member of an exported class out again.
#define KRO_LOCAL __attribute__((visibility("hidden")))

#endif
