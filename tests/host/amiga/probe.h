/* The host-call probe player (probe.S) and its tests share this list of
   routines and the layout of the state block. entry+16 points at the table
   of routine addresses (in PROBE_ROUTINES order), entry+20 at the state. */
#ifndef PROBE_H
#define PROBE_H

/* Every probe ends by storing D0, D1, A0, A1 and SR in the state block.
   The first four take the condition codes for the call in D6, so that a
   test sees which flags a host call clears and which it keeps. */
#define PROBE_ROUTINES(X)                                                      \
    X(LIB)       /* A4 = library base, D7 = LVO: jsr 0(a6,d7.w), A6 = A4 */    \
    X(FPTR)      /* D7 = index: move.l 0x38+4*index(a5),a3; jsr (a3) */         \
    X(NEG)       /* D7 = negative offset: jsr 0(a5,d7.w) */                     \
    X(RAW)       /* executes the word the test writes at RAW + 2 */             \
    X(COMPANION) /* path of a companion file built and loaded, GetListData(1) */\
    X(CAUSE)     /* Cause() of the soft interrupt node */                       \
    X(CIA_START) /* ciab.resource timer A handler, CIA-B timer A at 50 Hz */    \
    X(CIA_STOP)  /* RemICRVector of that handler */                             \
    X(VBLANK)    /* AddIntServer(INTB_VERTB) */                                 \
    X(LOADSEG)   /* LoadSeg(D1), segments counted, code of segment 0 called */  \
    X(OPTIONS)   /* the option block handed to the fifth library */

#define RAW_OPCODE 2 /* offset of the patched word in the RAW probe */

/* State block offsets. */
#define ST_D0 0
#define ST_D1 4
#define ST_A0 8
#define ST_A1 12
#define ST_SR 16           /* word */
#define ST_INTERRUPTS 20   /* Interrupt routine calls */
#define ST_SOFT_RUNS 24    /* soft interrupt code runs */
#define ST_SOFT_A1 28      /* A1 seen by the soft interrupt code */
#define ST_AFTER_CAUSE 32  /* returns from Cause to the probe */
#define ST_CIAB 36         /* ciab.resource base */
#define ST_CIA_ADD 40      /* AddICRVector result */
#define ST_TIMER_RUNS 44   /* timer A handler runs */
#define ST_TIMER_A1 48     /* A1 seen by the timer handler */
#define ST_VBLANK_RUNS 52  /* vertical-blank server runs */
#define ST_SEG 56          /* LoadSeg result */
#define ST_SEG_COUNT 60    /* segments in the list */
#define ST_SEG_A0 64       /* A0 after calling segment 0 + 16 */
#define ST_OPT_FLAGS 68    /* two flag bytes */
#define ST_OPT_VALUE1 72   /* 32-byte value buffers */
#define ST_OPT_VALUE2 104
#define ST_DATA 136        /* is_Data of every interrupt node points here */
#define ST_SIZE 140

#endif
