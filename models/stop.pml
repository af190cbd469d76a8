/* How a sleeping thread is stopped: the request is set, the stopper passes through the sleeper's mutex, and signals;
 * the sleeper looks at the request under the mutex that it sleeps with. One place where a thread sleeps at a time,
 * chosen by -DSLEEPER=...:
 *
 *   QUEUE       src/gssipPortTransmit.cpp transmitThread, takeFromQueue on txCond, with the gate open
 *   GATE        the same thread, waitForPortReady without time limit on readyCond; another thread opens and shuts the
 *               gate. Both are ended by src/gssipPort.cpp expectStop and uninitializeTransmitThread
 *   IDLE        src/gssipSendAckReq.cpp eventThread, serveQueue, with nothing pending; another thread registers
 *   DEADLINE    the same with an event pending, whose deadline is too far off to be waited for; another thread settles
 *               it. Both are ended by unnitializeEventThread
 *   CONSUMERS   src/ThreadSafeQueue.h pop_wait, two consumers, ended by stop; another thread pushes
 *   PROCESSING  src/gssipReceive.cpp processReceiveQ, waitForBytes, ended by endThreads; another thread appends bytes
 *
 * Abstracted: what the threads do when awake. A wait may end once for no reason. The run flags are left out: they
 * change nothing here (see start.pml).
 *
 * Property: the stopper's join returns, whatever the order of steps. A lost wake-up is a state in which nobody can go
 * on.
 *
 * LITERAL_NO_PASS         the stopper does not take the sleeper's mutex
 * LITERAL_UNTESTED        the sleeper looks at the request only before it takes the mutex
 * LITERAL_SIGNAL_FIRST    the stopper signals, then sets the request
 * LITERAL_ONE_CONSUMER    the stop of the queue wakes one consumer (CONSUMERS)
 */
#define QUEUE 1
#define GATE 2
#define IDLE 3
#define DEADLINE 4
#define CONSUMERS 5
#define PROCESSING 6

#ifndef SLEEPER
#define SLEEPER QUEUE
#endif

#include "sync.pml"

bool stopRequested
byte ended

#ifdef LITERAL_UNTESTED
#define STOP_SEEN false
#else
#define STOP_SEEN stopRequested
#endif

#ifdef LITERAL_NO_PASS
#define PASS(mutex) skip
#define PASSED(mutex) skip
#else
#define PASS(mutex) LOCK(mutex)
#define PASSED(mutex) UNLOCK(mutex)
#endif

#ifdef LITERAL_SIGNAL_FIRST
#define REQUEST skip
#define LATE_REQUEST stopRequested = true
#else
#define REQUEST stopRequested = true
#define LATE_REQUEST skip
#endif

#if SLEEPER == QUEUE || SLEEPER == GATE

#if SLEEPER == GATE
#define GATE_STOP_SEEN STOP_SEEN
#define QUEUE_STOP_SEEN stopRequested
#define PASS_GATE PASS(readyMutex)
#define PASSED_GATE PASSED(readyMutex)
#define PASS_QUEUE LOCK(txMutex)
#define PASSED_QUEUE UNLOCK(txMutex)
#else
#define GATE_STOP_SEEN stopRequested
#define QUEUE_STOP_SEEN STOP_SEEN
#define PASS_GATE LOCK(readyMutex)
#define PASSED_GATE UNLOCK(readyMutex)
#define PASS_QUEUE PASS(txMutex)
#define PASSED_QUEUE PASSED(txMutex)
#endif

bool txMutex, readyMutex, queueAsleep, gateAsleep
bool portReady = (SLEEPER == QUEUE)
bool openedSince
byte queued = (SLEEPER == GATE)

proctype sleeper()
{
    do
    :: !stopRequested ->
        LOCK(readyMutex);
        openedSince = false;
        do
        :: portReady || openedSince || GATE_STOP_SEEN -> break
#if SLEEPER == GATE
        :: else -> wait(gateAsleep, readyMutex)
#endif
        od;
        UNLOCK(readyMutex);
        LOCK(txMutex);
        if
        :: (queued == 0 || stopRequested) && !QUEUE_STOP_SEEN -> wait(queueAsleep, txMutex)
        :: else
        fi;
        if
        :: queued > 0 && !stopRequested -> queued--
        :: else
        fi;
        UNLOCK(txMutex)
    :: stopRequested -> break
    od;
    ended++
}

inline openGate()
{
    atomic {
        portReady = true;
        openedSince = true
    };
    signal(gateAsleep)
}

proctype stopper()
{
    PASS_QUEUE;
    REQUEST;
    PASSED_QUEUE;
    PASS_QUEUE;
    PASSED_QUEUE;
    signal(queueAsleep);
    PASS_GATE;
    openGate();
    PASSED_GATE;
    LATE_REQUEST;
    ended == 1 /* join */
}

proctype other()
{
#if SLEEPER == GATE
    LOCK(readyMutex);
    openGate();
    UNLOCK(readyMutex);
    LOCK(readyMutex);
    portReady = false;
    UNLOCK(readyMutex)
#else
    LOCK(txMutex);
    queued++;
    UNLOCK(txMutex);
    signal(queueAsleep)
#endif
}

#elif SLEEPER == IDLE || SLEEPER == DEADLINE

bool eventQMutex, eventAsleep
byte pending = (SLEEPER == DEADLINE)

proctype sleeper()
{
    do
    :: !stopRequested ->
        LOCK(eventQMutex);
        if
        :: STOP_SEEN
        :: !STOP_SEEN && pending == 0 -> wait(eventAsleep, eventQMutex)
        :: !STOP_SEEN && pending > 0 -> wait(eventAsleep, eventQMutex)
        fi;
        UNLOCK(eventQMutex)
    :: stopRequested -> break
    od;
    ended++
}

proctype stopper()
{
    REQUEST;
    PASS(eventQMutex);
    signal(eventAsleep);
    PASSED(eventQMutex);
    LATE_REQUEST;
    ended == 1 /* join */
}

proctype other()
{
    LOCK(eventQMutex);
    pending = 1 - pending;
    signal(eventAsleep);
    UNLOCK(eventQMutex)
}

#elif SLEEPER == CONSUMERS

bool queueMutex
bool asleep[2]
byte queued

/* Takes until there is nothing left and the queue is stopped. */
proctype sleeper(byte me)
{
    bool gone;

    do
    :: !gone ->
#ifdef LITERAL_UNTESTED
        gone = stopRequested;
#endif
        LOCK(queueMutex);
        do
        :: queued > 0 || STOP_SEEN -> break
#ifdef LITERAL_UNTESTED
        :: queued == 0 && gone -> break
        :: queued == 0 && !gone -> wait(asleep[me], queueMutex)
#else
        :: else -> wait(asleep[me], queueMutex)
#endif
        od;
        if
        :: queued > 0 -> queued--
        :: queued == 0 -> gone = true
        fi;
        UNLOCK(queueMutex)
    :: gone -> break
    od;
    ended++
}

proctype stopper()
{
    PASS(queueMutex);
    REQUEST;
    PASSED(queueMutex);
#ifdef LITERAL_ONE_CONSUMER
    signalOneOf(asleep[0], asleep[1]);
#else
    atomic {
        asleep[0] = false;
        asleep[1] = false
    };
#endif
    LATE_REQUEST;
    ended == 2 /* join */
}

proctype other()
{
    LOCK(queueMutex);
    queued++;
    UNLOCK(queueMutex);
    signalOneOf(asleep[0], asleep[1])
}

#elif SLEEPER == PROCESSING

bool frameMutex, processorAsleep, dataAvailable

/* The mutex is held but while it waits. */
proctype sleeper()
{
    LOCK(frameMutex);
    do
    :: !stopRequested ->
        do
        :: dataAvailable || STOP_SEEN -> break
        :: else -> wait(processorAsleep, frameMutex)
        od;
        dataAvailable = false
    :: stopRequested -> break
    od;
    UNLOCK(frameMutex);
    ended++
}

proctype stopper()
{
    PASS(frameMutex);
    REQUEST;
    PASSED(frameMutex);
    signal(processorAsleep);
    LATE_REQUEST;
    ended == 1 /* join */
}

proctype other()
{
    LOCK(frameMutex);
    dataAvailable = true;
    UNLOCK(frameMutex);
    signal(processorAsleep)
}

#endif

init {
    atomic {
#if SLEEPER == CONSUMERS
        run sleeper(0);
        run sleeper(1);
#else
        run sleeper();
#endif
        run other();
        run stopper()
    }
}
