#ifndef KRO_API_H
#define KRO_API_H

/// Marks what the library exports. Everything else is built with hidden visibility, so that a host can
/// neither link against internals nor clash with them.
#define KRO_API __attribute__((visibility("default")))

/// Takes a member of an exported class out again.
#define KRO_LOCAL __attribute__((visibility("hidden")))

#endif
