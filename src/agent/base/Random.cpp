#include "base/Random.h"

#include <cstdlib>
#include <mutex>

namespace nimbra {

namespace {

std::mutex generatorLock;

} // namespace

int SeedAndDraw(unsigned seed)
{
    const std::lock_guard lock(generatorLock);
    std::srand(seed);
    return std::rand();
}

int Draw()
{
    const std::lock_guard lock(generatorLock);
    return std::rand();
}

} // namespace nimbra
