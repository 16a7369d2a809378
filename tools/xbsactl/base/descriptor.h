// A file descriptor that closes itself.
#ifndef XBSACTL_DESCRIPTOR_H
#define XBSACTL_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace base
{
class CDescriptor
{
  public:
    explicit CDescriptor(int I_iFile = -1) : iFile(I_iFile)
    {
    }
    CDescriptor(CDescriptor &&I_sOther) noexcept : iFile(I_sOther.Release())
    {
    }
    CDescriptor &operator=(CDescriptor &&I_sOther) noexcept
    {
        if (iFile != -1) close(iFile);
        iFile = I_sOther.Release();
        return *this;
    }
    CDescriptor(const CDescriptor &) = delete;
    CDescriptor &operator=(const CDescriptor &) = delete;
    ~CDescriptor()
    {
        if (iFile != -1) close(iFile);
    }

    int Get() const
    {
        return iFile;
    }

    // The caller closes it.
    int Release()
    {
        return std::exchange(iFile, -1);
    }

  private:
    int iFile;
};
} // namespace base

#endif
