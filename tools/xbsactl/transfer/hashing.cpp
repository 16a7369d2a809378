#include "transfer/parts.h"

namespace transfer
{
namespace
{
// A thread is started for each full buffer, which takes much longer to hash than the start takes.
constexpr size_t BUFFER_SIZE = 16 * library::BLOCK_SIZE;
} // namespace

// Not cleared: a small object leaves most of the pages untouched.
CHashing::CHashing() : spFilling(new char[BUFFER_SIZE]), spHashed(new char[BUFFER_SIZE])
{
}

char *CHashing::Room()
{
    return &spFilling[uFilled];
}

void CHashing::Add(size_t I_uLength)
{
    uFilled += I_uLength;
    if (uFilled == BUFFER_SIZE) StartThread();
}

void CHashing::WaitForThread()
{
    if (sThread.valid()) sThread.get();
}

void CHashing::StartThread()
{
    WaitForThread();
    spFilling.swap(spHashed);
    uFilled = 0;
    sThread = std::async(std::launch::async | std::launch::deferred, [this] {
        sHash.Add({spHashed.get(), BUFFER_SIZE});
    });
}

std::string CHashing::Digits()
{
    WaitForThread();
    sHash.Add({spFilling.get(), uFilled});
    return sHash.Digits();
}
} // namespace transfer
