/* The hand-over from the starter to the new thread, and stops that come before the thread has run.
 *
 * Stands for
 *   src/ownedThread.h            create, announceRunning, awaitRunning, requestStop, join
 *   src/gssipPort.cpp            initializeTransmitThread, uninitializeTransmitThread, endThreads
 *   src/gssipPortTransmit.cpp    transmitThread, takeFromQueue on an empty queue
 * The event thread (src/gssipSendAckReq.cpp initializeEventThread, unnitializeEventThread, eventThread) is started and
 * stopped in the same way.
 *
 * Abstracted: the gate (open) and the queue (empty); naming the thread stands for everything that can fail after its
 * creation. The owner starts and stops twice; each start may fail to create or to name the thread; after a failed
 * naming nobody waits for the thread, and a stop, or the next start, may come before it has run. How late is open.
 *
 * Properties: the starter returns, and the stop's join does; when the starter comes to its loop on the run flag, the
 * flag is set, so that it never spins; no thread is created while another exists; after a stop the run flag is clear.
 *
 * LITERAL_RUN_FLAG_ALONE     the run flag is the only request to stop
 * LITERAL_NO_SEMAPHORE       the starter spins until the flag is set
 * LITERAL_KEPT_SEMAPHORE     one semaphore for all starts
 * LITERAL_CLEARED_ONCE       the stop clears the run flag before its join only
 * LITERAL_FORMER_KEPT        a start does not end the former thread
 */
#include "sync.pml"

#define ROUNDS 2

bool txMutex, queueAsleep
bool txRunning, stopping, exists
byte running           /* the semaphore */
byte threads           /* alive or not yet joined */
bool ended

proctype transmitThread()
{
    txRunning = true;
    running++;
    do
#ifdef LITERAL_RUN_FLAG_ALONE
    :: txRunning ->
        LOCK(txMutex);
        if
        :: txRunning -> wait(queueAsleep, txMutex)
        :: !txRunning
        fi;
        UNLOCK(txMutex)
    :: !txRunning -> break
#else
    :: txRunning && !stopping ->
        LOCK(txMutex);
        if
        :: !stopping -> wait(queueAsleep, txMutex)
        :: stopping
        fi;
        UNLOCK(txMutex)
    :: !txRunning || stopping -> break
#endif
    od;
    ended = true
}

inline create()
{
    assert(threads == 0);
#ifndef LITERAL_KEPT_SEMAPHORE
    running = 0;
#endif
    if
    :: atomic {
        exists = true;
        ended = false;
        threads++;
        run transmitThread()
    }
    :: exists = false
    fi
}

inline stop()
{
#ifndef LITERAL_RUN_FLAG_ALONE
    stopping = true;
#endif
    txRunning = false;
    LOCK(txMutex);
    UNLOCK(txMutex);
    signal(queueAsleep);
    if
    :: exists ->
        atomic {
            ended ->
            ended = false;
            threads--;
            exists = false
        }
    :: !exists
    fi;
    stopping = false;
#ifndef LITERAL_CLEARED_ONCE
    txRunning = false;
#endif
    assert(!txRunning)
}

inline start()
{
    if
#ifndef LITERAL_FORMER_KEPT
    :: exists -> stop()
#else
    :: exists
#endif
    :: !exists
    fi;
    txRunning = false;
    create();
    if
    :: !exists /* not created: nobody to wait for */
    :: exists /* not named: the start has failed, the thread runs */
    :: exists ->
#ifndef LITERAL_NO_SEMAPHORE
        atomic {
            running > 0 ->
            running--
        };
#endif
        assert(txRunning)
    fi
}

init {
    byte round;

    do
    :: round < ROUNDS ->
        start();
        if
        :: stop()
        :: skip
        fi;
        round++
    :: round == ROUNDS -> break
    od;
    if
    :: exists -> stop()
    :: !exists
    fi;
    assert(threads == 0)
}
