#include "Safeguards.h"

#include <atomic>

namespace kro
{
namespace
{
// Set at load, so that the initialisation of no other object can come before it.
std::atomic<unsigned> chosen{0};
}  // namespace

void setSafeguards(unsigned bits)
{
    chosen.store(bits, std::memory_order_relaxed);
}

unsigned safeguards()
{
    return chosen.load(std::memory_order_relaxed);
}

bool safeguarded(Safeguard safeguard)
{
    return (safeguards() & safeguard) != 0;
}

}  // namespace kro
