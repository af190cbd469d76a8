#ifndef KERNELTERMIOS_H
#define KERNELTERMIOS_H

/// \file
/// The kernel's own terminal structure, which knows every speed. It stands apart because its header and the C library's
/// termios.h exclude each other.

struct kernelTermios
{
    unsigned inputSpeed = 0;
    unsigned outputSpeed = 0;
    unsigned dataBits = 0;
    bool hasParity = false;
    bool parityIsOdd = false;   ///< or always 1, when it is fixed
    bool parityIsFixed = false; ///< always 1 or always 0
    bool twoStopBits = false;
};

/// What the terminal holds, asked for past any replacement of the system calls.
kernelTermios kernelTermiosOf(int descriptor);

bool readsKernelTermios(unsigned long request);
bool writesKernelTermios(unsigned long request);

/// What is asked for by such a request, and how to ask for another speed instead.
kernelTermios askedBy(void* argument);
void changeSpeedAskedBy(void* argument, unsigned speed);

#endif
