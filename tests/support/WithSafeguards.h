#ifndef KRO_TESTS_WITH_SAFEGUARDS_H
#define KRO_TESTS_WITH_SAFEGUARDS_H

#include "Safeguards.h"

namespace kro::test
{
/// Sets safeguards for the length of a scope, and the settled behaviour after it.
class WithSafeguards
{
public:
    explicit WithSafeguards(unsigned bits) { setSafeguards(bits); }
    ~WithSafeguards() { setSafeguards(0); }
    WithSafeguards(const WithSafeguards&) = delete;
    WithSafeguards& operator=(const WithSafeguards&) = delete;
};
}  // namespace kro::test

#endif
