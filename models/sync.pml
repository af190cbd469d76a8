/* Mutexes and condition variables, as POSIX threads have them, for the models of this folder.
 *
 * A condition variable is an array of flags, one for each thread that may sleep with it. A wait gives the mutex back
 * and falls asleep in one step, and takes the mutex again after it has been woken. A signal wakes one sleeper, any of
 * them, and is lost when nobody sleeps: that is what the models are about. Waits may also end for no reason, as POSIX
 * allows; SPURIOUS bounds how often in one run, since a thread that could always wake by itself would hide a lost
 * signal.
 */

#ifndef SPURIOUS
#define SPURIOUS 1
#endif

byte spuriousLeft = SPURIOUS

#define LOCK(mutex) atomic { !mutex -> mutex = true }
#define UNLOCK(mutex) mutex = false

inline fallAsleep(asleep, mutex)
{
    atomic {
        asleep = true;
        mutex = false
    }
}

/* The rest of a wait without time limit. */
inline wakeUp(asleep, mutex)
{
    if
    :: !asleep
    :: atomic {
        spuriousLeft > 0 && asleep ->
        spuriousLeft--;
        asleep = false
    }
    fi;
    LOCK(mutex)
}

/* pthread_cond_wait. What the caller does when no signal ever comes is a deadlock, unless it stands at an end label. */
inline wait(asleep, mutex)
{
    fallAsleep(asleep, mutex);
    wakeUp(asleep, mutex)
}

/* pthread_cond_signal for one possible sleeper. */
inline signal(asleep)
{
    asleep = false
}

/* pthread_cond_signal for two possible sleepers. */
inline signalOneOf(first, second)
{
    atomic {
        if
        :: first -> first = false
        :: second -> second = false
        :: !first && !second
        fi
    }
}
