/* The ring of docs/formats/shm_ring.md between one writer and one reader. Either may be killed
 * before any of its stores and is started again; both may be killed for a reset of the ring, and the
 * reset may be killed, too.
 *
 * The unit is a word: the format rounds everything up to words. Each store to the file is a step of
 * its own. The memory is sequentially consistent, which is what the release and acquire of the two
 * indexes come to for words that only one side writes at a time.
 *
 * Macros say what may happen:
 *   WRITER_DIES         before any store of a write
 *   READER_DIES         before the first store of a read
 *   READER_DIES_INSIDE  between the two stores of a read
 *   REPAIR              a ring whose reader is stuck is emptied while the writer runs
 *   RESET               both sides are killed once, anywhere, and the ring is reset
 *   RESET_DIES          and the reset is killed before any of its stores
 *   NO_TERMINATOR, EARLY_INDEX, FULL_RING, INDEX_FIRST, EMPTY_MESSAGE  faults of the sides
 *   FIND_STUCK          a reader that is stuck is an error
 *   STRICT              an error after a reset that died is one
 *   RESET_AGAIN         a reset that died is done once more
 */

#ifndef WORDS
#define WORDS 5 /* of the ring */
#endif
#ifndef MESSAGES
#define MESSAGES 5 /* to be sent; their bodies hold the numbers 1, 2, ... */
#endif
#ifndef DEATHS
#define DEATHS 2 /* of each side */
#endif
#ifdef FULL_RING
#define LEAST_FREE 0
#else
#define LEAST_FREE 1 /* words that stay free after a message */
#endif

byte ring[WORDS];
byte readIndex;
byte writeIndex;

/* Known to the observer only. */
byte sent;         /* messages published */
byte taken;        /* the number of the last message delivered */
byte writerDeaths;
byte readerDeaths;
bool dropped;      /* a repair or a reset dropped messages */
bool diedInside;   /* a reader died between its two stores, and nobody has repaired that */
bool resetBroken;  /* a reset died, and errors that come of it are excused */
bool isReset;      /* the reset came to its end */
byte resetStep;
bool killed;       /* both sides are to end at once */
bool writerDone;

#define NEXT(at, length) ((at + 1 + length) % WORDS)
#define FREE (WORDS - (writeIndex + WORDS - readIndex) % WORDS)
/* A reader never gets past this state: messages wait, and the oldest has no length. */
#define HOLE (readIndex != writeIndex && ring[readIndex] == 0)

proctype Writer() {
    byte at, length, next, step;

open:
    ring[writeIndex] = 0;
next_message:
    if
    :: killed || sent == MESSAGES -> goto done
    :: !killed && sent < MESSAGES ->
        if
        :: length = 1
        :: length = 2
#ifdef EMPTY_MESSAGE
        :: length = 0
#endif
        fi
    fi;
end_full: /* a reader that is stuck leaves the writer here for good */
    if
    :: killed -> goto done
    :: FREE - (1 + length) >= LEAST_FREE && FREE >= 1 + length
    fi;
    at = writeIndex;
    next = NEXT(at, length);
    step = 0;
    do
    :: killed -> goto done
#ifdef WRITER_DIES
    :: atomic { writerDeaths < DEATHS -> writerDeaths++; goto open }
#endif
    :: atomic { !killed && step == 0 -> ring[at] = length; step++ }
#ifdef EARLY_INDEX
    :: atomic { !killed && step == 1 -> writeIndex = next; sent++; step++ }
    :: atomic { !killed && step == 2 -> ring[(at + 1) % WORDS] = sent; step++ }
    :: atomic { !killed && step == 3 ->
           if
           :: length > 1 -> ring[(at + 2) % WORDS] = sent
           :: else
           fi;
           step++ }
    :: atomic { !killed && step == 4 -> ring[next] = 0; goto next_message }
#else
    :: atomic { !killed && step == 1 ->
           if
           :: length > 0 -> ring[(at + 1) % WORDS] = sent + 1
           :: else
           fi;
           step++ }
    :: atomic { !killed && step == 2 ->
           if
           :: length > 1 -> ring[(at + 2) % WORDS] = sent + 1
           :: else
           fi;
           step++ }
    :: atomic { !killed && step == 3 ->
#ifndef NO_TERMINATOR
           ring[next] = 0;
#endif
           step++ }
    :: atomic { !killed && step == 4 -> writeIndex = next; sent++; goto next_message }
#endif
    od;
done:
    writerDone = !killed
}

proctype Reader() {
    byte length, next, body, i, until;
    bool torn;

again:
    if
    :: killed -> goto done
    :: atomic { !killed && writerDone && readIndex == writeIndex ->
           assert(dropped || taken == sent);
           goto done }
    :: atomic { !killed && HOLE -> assert(diedInside || resetBroken) }
#ifdef REPAIR
       until = writeIndex;
       atomic { readIndex = until; diedInside = false; dropped = true; goto again }
#else
       goto stuck
#endif
    :: atomic { !killed && readIndex != writeIndex && !HOLE -> length = ring[readIndex] }
    fi;
    if
    :: length > WORDS ->
        assert(resetBroken);
        atomic { readIndex = writeIndex; dropped = true; goto again }
    :: else
    fi;
    next = NEXT(readIndex, length);
    torn = false;
    body = ring[(readIndex + 1) % WORDS];
    i = 2;
    do
    :: i <= length -> atomic { torn = torn || ring[(readIndex + i) % WORDS] != body; i++ }
    :: i > length -> break
    od;
    if
    :: killed -> goto done
#ifdef READER_DIES
    :: atomic { !killed && readerDeaths < DEATHS -> readerDeaths++; goto again }
#endif
    :: !killed
    fi;
#ifdef INDEX_FIRST
    atomic { readIndex = next; assert(!torn); taken = body };
    ring[(next + WORDS - 1 - length) % WORDS] = 0;
    goto again;
#else
    ring[readIndex] = 0;
    if
    :: atomic { killed -> diedInside = true; goto done }
#ifdef READER_DIES_INSIDE
    :: atomic { !killed && readerDeaths < DEATHS -> readerDeaths++; diedInside = true; goto again }
#endif
    :: atomic { !killed ->
           readIndex = next;
           assert(resetBroken || !torn);
           assert(resetBroken || (dropped && body > taken) || body == taken + 1);
           taken = body;
           goto again }
    fi;
#endif
stuck:
#ifdef FIND_STUCK
    assert(false);
#endif
end_stuck:
    killed;
done:
    skip
}

/* Three stores in the order of the daemon's own Reset. */
inline Reset() {
    do
    :: resetStep == 0 -> atomic { readIndex = 0; resetStep++ }
    :: resetStep == 1 -> atomic { writeIndex = 0; resetStep++ }
    :: resetStep == 2 -> atomic { ring[0] = 0; isReset = true; resetStep++ }
    :: resetStep == 3 -> break
#ifdef RESET_DIES
    :: resetStep < 3 -> break
#endif
    od
}

init {
    atomic { run Writer(); run Reader() }
#ifdef RESET
    killed = true;
    _nr_pr == 1;
    Reset();
#ifdef RESET_AGAIN
    atomic {
        readIndex = 0;
        writeIndex = 0;
        ring[0] = 0;
        isReset = true
    }
#endif
#ifndef STRICT
    resetBroken = !isReset;
#endif
    atomic {
        dropped = true;
        diedInside = false;
        killed = false;
        run Writer();
        run Reader()
    }
#endif
}
