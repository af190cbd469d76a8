#ifndef FAULTS_OLDKERNEL_H
#define FAULTS_OLDKERNEL_H

#include "systemCalls.h"

namespace faults
{

/// A kernel whose terminals know the standard rates alone.
class oldKernel : public kit::systemCalls
{
  public:
    int ioctl(int descriptor, unsigned long request, void* argument) override;
};

} // namespace faults

#endif
