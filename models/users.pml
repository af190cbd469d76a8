/* Users of a descriptor that come and go without a lock, against who closes it, opens it again, and destroys it.
 *
 * Stands for
 *   support/wakeableDescriptor.cpp  use (constructor and destructor), enter, leave, adopt, beginClose, waitForUsers,
 *                                   release
 *
 * Abstracted: writers and others are counted alike; what wakes the users is left out, since each leaves by itself. Each
 * of two users comes twice, at any moment until the owner lets nobody begin any more; then the owner closes for the
 * last time, and destroys. A failing compare-exchange begins anew, as one that fails for no reason does.
 *
 * Properties: who is inside finds the descriptor open; who has been counted out touches nothing any more; the owner's
 * waits end.
 *
 * LITERAL_LOOK_THEN_COUNT   who enters looks first and is counted after that
 * LITERAL_COUNT_THEN_LOOK   who leaves is counted out before it looks whether somebody closes
 * LITERAL_NO_NOTICE         who leaves a closed descriptor tells nobody
 */
#include "sync.pml"

byte inside             /* the count of the word that both share, */
bool closed = true      /* and its flag */
bool mutex, ownerAsleep

bool open, destroyed
bool noMore             /* the owner lets nobody begin any more */
byte beginning          /* called, and not yet through `enter` */

inline look(sawInside, sawClosed)
{
    atomic {
        assert(!destroyed);
        sawInside = inside;
        sawClosed = closed
    }
}

/* Both in one step, when neither has changed. */
inline exchange(sawInside, sawClosed, wanted, done)
{
    atomic {
        assert(!destroyed);
        done = (inside == sawInside && closed == sawClosed);
        if
        :: done -> inside = wanted
        :: else
        fi
    }
}

inline enter()
{
    done = false;
    do
    :: !done ->
        look(sawInside, sawClosed);
        if
        :: sawClosed -> break
        :: else ->
#ifdef LITERAL_LOOK_THEN_COUNT
            inside++;
            done = true
#else
            exchange(sawInside, sawClosed, sawInside + 1, done)
#endif
        fi
    :: done -> break
    od
}

inline leaveClosed()
{
    LOCK(mutex);
    assert(!destroyed);
    inside--;
#ifndef LITERAL_NO_NOTICE
    signal(ownerAsleep);
#endif
    UNLOCK(mutex)
}

inline leave()
{
#ifdef LITERAL_COUNT_THEN_LOOK
    inside--;
    look(sawInside, sawClosed);
    if
    :: sawClosed ->
        LOCK(mutex);
        signal(ownerAsleep);
        UNLOCK(mutex)
    :: !sawClosed
    fi
#else
    done = false;
    do
    :: !done ->
        look(sawInside, sawClosed);
        if
        :: sawClosed ->
            leaveClosed();
            break
        :: else -> exchange(sawInside, sawClosed, sawInside - 1, done)
        fi
    :: done -> break
    od
#endif
}

proctype user()
{
    byte calls, sawInside
    bool sawClosed, done
    do
    :: atomic {
            calls < 2 && !noMore ->
            calls++;
            beginning++
        }
        enter();
        beginning--;
        if
        :: done ->
            assert(open && !destroyed);
            assert(open && !destroyed); /* a step later too: for as long as it is inside */
            leave()
        :: !done
        fi
    :: calls == 2 || noMore -> break
    od
}

inline adopt()
{
    LOCK(mutex);
    open = true;
    closed = false;
    UNLOCK(mutex)
}

inline close()
{
    LOCK(mutex);
    closed = true;
    UNLOCK(mutex);
    LOCK(mutex);
    do
    :: inside != 0 -> wait(ownerAsleep, mutex)
    :: inside == 0 -> break
    od;
    UNLOCK(mutex);
    LOCK(mutex);
    open = false;
    UNLOCK(mutex)
}

init
{
    atomic {
        run user();
        run user()
    }
    adopt();
    close();
    adopt();
    noMore = true;
    beginning == 0;
    close();
    destroyed = true
}
