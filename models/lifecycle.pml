/* Start, stop and destruction of a port in any order, from two threads and from a thread of the port's own, with
 * starts that fail or half fail and a stop whose close fails.
 *
 * Stands for
 *   src/gssipPort.cpp         start, stop, ~gssipPort, stopEverything, expectStop, endThreads, constructReceiver,
 *                             initializeReceiveThread, uninitializeReceiveThread, initializeTransmitThread,
 *                             uninitializeTransmitThread
 *   src/gssipSendAckReq.cpp   initializeEventThread, unnitializeEventThread
 *   src/gssipReceive.cpp      startThreads, endThreads, thread with readOnce
 *   src/ownedThread.h, src/portThread.h
 *   support/wakeableDescriptor.cpp  adopt, interruptReader, beginClose, pause, as far as the reading thread sees them
 *
 * Abstracted: the reading thread stands for both threads of the receiver, but for a processing thread that cannot be
 * created; event and transmit thread do nothing until they are asked to stop, and how they hear of it is the matter of
 * stop.pml and start.pml; callers of getMessage are left out. Bytes never come, so nothing else wakes the reading
 * thread. Each of two application threads makes OPERATIONS calls; the reading thread's log sink makes one. What can
 * fail: opening, closing, the creation of each thread, the naming of the transmit thread. Two of each kind of thread
 * fit into the model, so that a second one would be seen.
 *
 * Properties: every call returns; never two readers on the device, never two threads of a kind; a thread is joined
 * once, and only one that exists; after the destruction no thread exists, and the device is closed; a started port,
 * unless its last close has failed, has all of its threads.
 *
 * LITERAL_FAILED_START_STAYS   the destructor ends the threads of a started port only
 * LITERAL_FORMER_KEPT          a start does not end the threads of a former one
 * LITERAL_UNGUARDED            starts and stops are not serialised
 * LITERAL_OWN_THREAD           a call from the port's own thread goes on like any other
 * LITERAL_JOIN_ALWAYS          a stop joins whether there is a thread or not
 * LITERAL_NO_INTERRUPTION      only closing the device wakes its reader
 */
#include "sync.pml"

#ifndef OPERATIONS
#define OPERATIONS 3
#endif

#define NOBODY 2

mtype = { absent, created, over }

bool lifecycle, started, closeFailed

bool deviceOpen, interrupted
byte readers

/* The receivers that can exist at the same time, and the one installed. */
byte receiver = NOBODY
mtype reading[2] = absent
bool joinable[2]
bool stopRead[2]

byte eventThread
mtype serving[2] = absent
bool eventExists, eventStopping
byte servers

byte transmitThread
mtype transmitting[2] = absent
bool transmitExists, transmitStopping
byte takers

byte finished
bool sinkCalled

inline join(state)
{
    assert(state != absent);
    atomic {
        state == over ->
        state = absent
    }
}

/* A thread of its kind in the first free place. */
inline create(place, first, second)
{
    atomic {
        if
        :: first == absent ->
            place = 0;
            first = created
        :: first != absent && second == absent ->
            place = 1;       /* unreached when mended */
            second = created /* unreached when mended */
        fi
    }
}

inline endReceiver(which)
{
    stopRead[which] = true;
    if
    :: joinable[which] ->
#ifndef LITERAL_NO_INTERRUPTION
        interrupted = true;
#endif
        join(reading[which]);
        joinable[which] = false
    :: !joinable[which]
    fi
}

inline endEventThread()
{
    eventStopping = true;
#ifdef LITERAL_JOIN_ALWAYS
    join(serving[eventThread]);
    eventExists = false;
#else
    if
    :: eventExists ->
        join(serving[eventThread]);
        eventExists = false
    :: !eventExists
    fi;
#endif
    eventStopping = false
}

inline endTransmitThread()
{
    transmitStopping = true;
#ifdef LITERAL_JOIN_ALWAYS
    join(transmitting[transmitThread]);
    transmitExists = false;
#else
    if
    :: transmitExists ->
        join(transmitting[transmitThread]);
        transmitExists = false
    :: !transmitExists
    fi;
#endif
    transmitStopping = false
}

inline endThreads()
{
    former = receiver;
    if
    :: former != NOBODY -> endReceiver(former)
    :: former == NOBODY
    fi;
    former = NOBODY;
    if
    :: eventExists -> endEventThread()
    :: !eventExists
    fi;
    if
    :: transmitExists -> endTransmitThread()
    :: !transmitExists
    fi
}

inline openDevice()
{
    if
    :: deviceOpen
    :: !deviceOpen ->
        if
        :: atomic {
            deviceOpen = true;
            interrupted = false
        }
        :: failed = true
        fi
    fi
}

inline constructReceiver()
{
    former = receiver;
    if
    :: failed = true; /* no thread */
        receiverFailed = true
    :: atomic {
        fresh = (reading[0] == absent -> 0 : 1);
        stopRead[fresh] = false
    };
        create(fresh, reading[0], reading[1]);
        joinable[fresh] = true;
        if
        :: receiver = fresh;
            receiverFailed = false
        :: endReceiver(fresh); /* no processing thread */
            failed = true;
            receiverFailed = true
        fi
    fi;
#ifdef LITERAL_FORMER_KEPT
    if
    :: !receiverFailed && former != NOBODY -> endReceiver(former)
    :: else
    fi;
#endif
    former = NOBODY
}

inline startEventThread()
{
    if
    :: create(eventThread, serving[0], serving[1]);
        eventExists = true
    :: failed = true
    fi
}

inline startTransmitThread()
{
    if
    :: create(transmitThread, transmitting[0], transmitting[1]);
        transmitExists = true
    :: create(transmitThread, transmitting[0], transmitting[1]);
        transmitExists = true; /* and was not named */
        failed = true
    :: failed = true
    fi
}

inline start()
{
    lockLifecycle();
    if
    :: started
    :: !started ->
#ifndef LITERAL_FORMER_KEPT
        endThreads();
#endif
        failed = false;
        openDevice();
        constructReceiver();
        if
        :: !receiverFailed -> startEventThread()
        :: receiverFailed
        fi;
        startTransmitThread();
        started = !failed;
        atomic {
            failed = false;
            receiverFailed = false;
            fresh = 0;
            closeFailed = false
        }
    fi;
    unlockLifecycle()
}

inline stopEverything()
{
    former = receiver;
    if
    :: former != NOBODY -> stopRead[former] = true
    :: former == NOBODY
    fi;
    transmitStopping = true;
    if
    :: deviceOpen ->
        deviceOpen = false;
        if
        :: failed = false
        :: failed = true
        fi
    :: !deviceOpen
    fi;
    atomic {
        former = receiver;
        receiver = NOBODY
    };
    if
    :: former != NOBODY -> endReceiver(former)
    :: former == NOBODY
    fi;
    endEventThread();
    endTransmitThread();
    atomic {
        started = failed;
        closeFailed = failed;
        failed = false;
        former = NOBODY
    }
}

inline stop()
{
    lockLifecycle();
    if
    :: started -> stopEverything()
    :: !started
    fi;
    unlockLifecycle()
}

inline lockLifecycle()
{
#ifndef LITERAL_UNGUARDED
    LOCK(lifecycle);
#endif
    skip
}

inline unlockLifecycle()
{
    assert(!started || closeFailed || (deviceOpen && eventExists && transmitExists && receiver != NOBODY));
    UNLOCK(lifecycle)
}

proctype readingThread(byte me)
{
    byte fresh;
    byte former = NOBODY;
    bool failed, receiverFailed;

end_absent:
    do
    :: atomic {
        reading[me] == created ->
        readers++;
        assert(readers == 1)
    };
        do
        :: stopRead[me] -> break
        :: !stopRead[me] && deviceOpen ->
            if
            :: !deviceOpen
            :: interrupted -> interrupted = false
            fi
        :: !stopRead[me] && !deviceOpen ->
            if
            :: !sinkCalled ->
                sinkCalled = true;
#ifdef LITERAL_OWN_THREAD
                if
                :: stop()
                :: start()
                fi
#endif
            :: skip
            fi;
            if
            :: deviceOpen
            :: interrupted -> interrupted = false
            fi
        od;
        atomic {
            readers--;
            reading[me] = over
        }
    od
} /* unreached: goes on for ever */

proctype eventThreadBody(byte me)
{
end_absent:
    do
    :: atomic {
        serving[me] == created ->
        servers++;
        assert(servers == 1)
    };
        eventStopping;
        atomic {
            servers--;
            serving[me] = over
        }
    od
} /* unreached: goes on for ever */

proctype transmitThreadBody(byte me)
{
end_absent:
    do
    :: atomic {
        transmitting[me] == created ->
        takers++;
        assert(takers == 1)
    };
        transmitStopping;
        atomic {
            takers--;
            transmitting[me] = over
        }
    od
} /* unreached: goes on for ever */

proctype application()
{
    byte calls, fresh;
    byte former = NOBODY;
    bool failed, receiverFailed;

    do
    :: calls < OPERATIONS ->
        if
        :: start()
        :: stop()
        fi;
        calls++
    :: calls == OPERATIONS -> break
    od;
    finished++
}

/* ~gssipPort, and that of the device in it. */
inline destroy()
{
    if
#ifdef LITERAL_FAILED_START_STAYS
    :: started -> stopEverything()
#else
    :: started || receiver != NOBODY || eventExists || transmitExists -> stopEverything()
#endif
    :: else
    fi;
    deviceOpen = false;
    assert(reading[0] == absent && reading[1] == absent);
    assert(serving[0] == absent && serving[1] == absent);
    assert(transmitting[0] == absent && transmitting[1] == absent)
}

init {
    byte former = NOBODY;
    bool failed;

    atomic {
        run readingThread(0);
        run readingThread(1);
        run eventThreadBody(0);
        run eventThreadBody(1);
        run transmitThreadBody(0);
        run transmitThreadBody(1);
        run application();
        run application()
    };
    finished == 2;
    destroy()
}
