/* One tracked message after the other: gate, announcement, write, registration, against what the line does meanwhile.
 *
 * Stands for
 *   src/gssipPortTransmit.cpp    transmitNext, waitForPortReady, resetPortReady, signalPortReady, writeTracked,
 *                                writeImage
 *   src/gssipPortReceive.cpp     getMessage with deliver, acknowledgeAndTrack, openGateFor
 *   src/gssipSendAckReq.cpp      announce, announcedIsOnItsWay, endAnnouncement, registerMessage with enqueueAs,
 *                                processReceiveAckNak with matchPending and matchAnnounced, serveQueue, serveTimeout,
 *                                processRetransmit with resend
 *   src/ThreadSafeQueue.h        the numbers of arrival
 *
 * Abstracted: two messages with one id or with two; the transmit queue always holds them; the way back from the peer
 * and framing are one step; fair locks are plain mutexes, which allows more orders; any pending event may be the front
 * of the queue; time is an order of steps: on the lossy line a time-out may come at any moment, on the perfect line
 * only when nothing is on its way any more, that is, when no answer can come. Whether the line is perfect or loses,
 * damages and duplicates is chosen first. At any moment the peer sends one thing unasked: a request of its own,
 * which is acknowledged and shuts the gate, or an answer, which is one to something earlier or a duplicate (of the
 * answer, or of the message).
 *
 * Properties: a message is written at most twice, on the perfect line once; what settles an announced message has been
 * received after the device was offered its first byte; a thread that waits in the gate when it is opened passes; a
 * wait in the gate succeeds only through an opening; nothing blocks for ever, and nothing stays pending on the perfect
 * line.
 *
 * LITERAL_NO_ANNOUNCEMENT   the tracker hears of a message only when it is registered
 * LITERAL_STALE_ACK         an announced message is settled by an answer of any age
 * LITERAL_NO_PASS           who wakes in the gate looks at the flag alone
 * SEEDED_OLD_PASS           a pass outlives its wait
 * SEEDED_UNCOUNTED_RESEND   a resend is not counted
 */
#include "sync.pml"

#ifndef SURPRISES
#define SURPRISES 1
#endif

#define MESSAGES 2
#define NOT_YET 255

mtype = { ack, nak, request }
mtype = { none, awaited, acknowledged, refused }

bool perfect
byte id[MESSAGES]

/* What is on its way to the peer, and what has been received: kind, id, number of arrival, and `offers` then. */
chan line = [2] of { byte }
chan received = [2] of { mtype, byte, byte, byte }
byte pushed
byte surprises = SURPRISES

bool eventQMutex, sendMutex, readyMutex

/* The tracker. */
bool eventAsleep
bool pending[MESSAGES]
bool dueAtOnce[MESSAGES]
byte retransmits[MESSAGES]
mtype announced = none
byte announcedId
byte firstPossibleAnswer = NOT_YET

/* The gate. */
bool portReady
bool openedSince /* whether timesOpened has changed since the waiting thread noted it */
bool gateAsleep
#ifdef SEEDED_OLD_PASS
bool oldPass
#endif

/* For the properties alone. */
byte written[MESSAGES]
byte offers           /* how many messages the device has been offered */
byte announcedMessage
bool letIn            /* the gate was opened while the transmit thread waited in it */
bool openedMeanwhile  /* the gate was open since the transmit thread came to it */
bool takingMessage

#define MAY_TIME_OUT(m) \
    (!perfect || dueAtOnce[m] || \
     (empty(line) && empty(received) && !takingMessage))

/* serialPort::send has taken all of it. */
inline writeMessage(m)
{
    atomic {
        written[m]++;
        assert(written[m] <= (perfect -> 1 : 2));
        line!m
    }
}

inline openGate()
{
    atomic {
        !readyMutex ->
        portReady = true;
        openedSince = true;
#ifdef SEEDED_OLD_PASS
        oldPass = true;
#endif
        openedMeanwhile = true;
        letIn = letIn || gateAsleep;
        signal(gateAsleep)
    }
}

inline shutGate()
{
    atomic {
        !readyMutex ->
        portReady = false
    }
}

#if defined(LITERAL_NO_PASS)
#define MAY_PASS portReady
#elif defined(SEEDED_OLD_PASS)
#define MAY_PASS (portReady || oldPass)
#else
#define MAY_PASS (portReady || openedSince)
#endif

inline waitInGate()
{
    LOCK(readyMutex);
    atomic {
        openedSince = false;
        letIn = false;
        openedMeanwhile = portReady
    };
    do
    :: atomic {
        MAY_PASS || timedOut ->
        assert(openedMeanwhile || !MAY_PASS);
        break
    }
    :: else ->
        assert(!letIn);
        fallAsleep(gateAsleep, readyMutex);
        if
        :: atomic {
            !gateAsleep && !readyMutex ->
            readyMutex = true
        }
        :: atomic {
            gateAsleep ->
            gateAsleep = false;
            timedOut = true
        };
            LOCK(readyMutex)
        fi
    od;
    atomic {
        timedOut = false;
        letIn = false;
        openedMeanwhile = false;
        openedSince = false;
        readyMutex = false
    }
}

inline announce(m)
{
    atomic {
        !eventQMutex ->
        firstPossibleAnswer = NOT_YET;
        announced = awaited;
        announcedId = id[m];
        announcedMessage = m
    }
}

inline registerMessage(m)
{
    atomic {
        !eventQMutex ->
        if
#ifdef LITERAL_NO_ANNOUNCEMENT
        :: pending[m] = true
#else
        :: announced == acknowledged
        :: announced == refused ->
            dueAtOnce[m] = true;
            pending[m] = true
        :: announced == awaited -> pending[m] = true
#endif
        fi;
        announced = none;
        signal(eventAsleep)
    }
}

inline endAnnouncement()
{
    atomic {
        !eventQMutex ->
        announced = none;
        announcedId = 0;
        announcedMessage = 0;
        firstPossibleAnswer = NOT_YET
    }
}

/* eventQMutex is held. */
inline forget(m)
{
    atomic {
        pending[m] = false;
        dueAtOnce[m] = false;
        retransmits[m] = 0
    }
}

proctype transmitThread()
{
    byte m, arrivals;
    bool timedOut, failed;

    do
    :: m < MESSAGES ->
        waitInGate();
#ifndef LITERAL_NO_ANNOUNCEMENT
        announce(m);
#endif
        LOCK(sendMutex);
    offered:
        atomic {
            arrivals = pushed;
            offers = m + 1
        };
        atomic {
            firstPossibleAnswer = arrivals + 1;
            arrivals = 0
        };
        if
        :: goto offered /* the driver took nothing and is offered the bytes again */
        :: !perfect -> failed = true
        :: writeMessage(m)
        fi;
        UNLOCK(sendMutex);
        if
        :: !failed -> registerMessage(m)
        :: failed -> failed = false
        fi;
#ifndef LITERAL_NO_ANNOUNCEMENT
        endAnnouncement();
#endif
        m++
    :: else -> break
    od
}

/* processRetransmit: eventQMutex is held. */
inline retransmit(m)
{
#ifndef SEEDED_UNCOUNTED_RESEND
    retransmits[m]++;
#endif
    dueAtOnce[m] = false;
    if
    :: retransmits[m] < 2 ->
        atomic {
            !sendMutex && nfull(line) ->
            writeMessage(m)
        }
    :: else -> forget(m)
    fi
}

proctype eventThread()
{
    byte m;

    do
    :: LOCK(eventQMutex);
        if
        :: !pending[0] && !pending[1] ->
            fallAsleep(eventAsleep, eventQMutex);
        end_nothingPending:
            !eventAsleep;
            LOCK(eventQMutex)
        :: else ->
            if
            :: pending[0] -> m = 0
            :: pending[1] -> m = 1
            fi;
            fallAsleep(eventAsleep, eventQMutex);
            if
            :: !eventAsleep -> LOCK(eventQMutex)
            :: atomic {
                eventAsleep && MAY_TIME_OUT(m) ->
                eventAsleep = false
            };
                LOCK(eventQMutex);
                if
                :: pending[m] -> retransmit(m)
                :: !pending[m] /* answered while its time ran out */
                fi
            fi
        fi;
        atomic {
            m = 0;
            eventQMutex = false
        }
    od
} /* unreached: goes on for ever */

/* matchAnnounced: eventQMutex is held. */
inline matchAnnounced()
{
    if
#ifdef LITERAL_STALE_ACK
    :: announced == none || announcedId != answeredId
#else
    :: announced == none || announcedId != answeredId || arrival < firstPossibleAnswer
#endif
    :: else ->
        assert(offersThen > announcedMessage);
        if
        :: kind == ack -> announced = acknowledged
        :: kind == nak && announced == awaited -> announced = refused
        :: kind == nak && announced != awaited
        fi
    fi
}

/* The application's thread in getMessage. */
proctype getMessage()
{
    mtype kind;
    byte answeredId, arrival, offersThen, m;

end_noMessage:
    do
    :: atomic {
        received?kind, answeredId, arrival, offersThen ->
        takingMessage = true
    };
        if
        :: kind == request ->
            !sendMutex; /* the acknowledgement is written, of which the model says nothing more */
            shutGate()
        :: else ->
            LOCK(eventQMutex);
            atomic {
                if
                :: pending[0] && id[0] == answeredId -> m = 0
                :: pending[1] && id[1] == answeredId -> m = 1
                :: else -> m = MESSAGES
                fi
            };
            if
            :: m == MESSAGES -> matchAnnounced()
            :: m != MESSAGES && kind == ack ->
                forget(m);
                signal(eventAsleep)
            :: m != MESSAGES && kind == nak ->
                retransmit(m);
                signal(eventAsleep)
            fi;
            atomic {
                UNLOCK(eventQMutex);
                answeredId = 0;
                arrival = 0;
                offersThen = 0;
                kind = 0;
                m = 0
            };
            openGate()
        fi;
        atomic {
            takingMessage = false;
            kind = 0;
            arrival = 0;
            offersThen = 0
        }
    od
} /* unreached: goes on for ever */

/* What comes from the line is numbered when the receiver puts it into its queue. */
inline receive(what, messageId)
{
    pushed++;
    received!what, messageId, pushed, offers
}

proctype peerAndLine()
{
    byte m;

end_quiet:
    do
    :: atomic {
        nempty(line) && nfull(received) ->
        line?m;
        if
        :: receive(ack, id[m])
        :: !perfect -> receive(nak, id[m]) /* the message was damaged */
        :: !perfect                        /* lost, the message or its answer */
        fi;
        m = 0
    }
    :: atomic {
        surprises > 0 && nfull(received) ->
        surprises--;
        if
        :: receive(request, 0)
        :: receive(ack, id[0]) /* to something earlier, or once more */
        :: receive(ack, id[1])
        :: !perfect -> receive(nak, id[0])
        :: !perfect -> receive(nak, id[1])
        fi
    }
    od
} /* unreached: goes on for ever */

init {
    atomic {
        if
        :: perfect = true
        :: perfect = false
        fi;
        if
        :: id[1] = 0
        :: id[1] = 1
        fi;
        if
        :: portReady = true
        :: portReady = false
        fi;
        run transmitThread();
        run eventThread();
        run getMessage();
        run peerAndLine()
    }
}
