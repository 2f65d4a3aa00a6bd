/* The host-call probe player (probe.S) and its tests share this layout.
   entry+16 points at the routines LIB, FPTR, NEG and RAW in that order,
   entry+20 at the state block, entry+24 at an exec Interrupt node. */
#ifndef PROBE_H
#define PROBE_H

#define RAW_OPCODE 2 /* offset of the word the test patches in RAW */

/* State block offsets. */
#define ST_D0 0
#define ST_D1 4
#define ST_A0 8
#define ST_A1 12
#define ST_SR 16          /* word */
#define ST_INTERRUPTS 20  /* Interrupt routine calls */
#define ST_CONFIG_A6 24   /* A6 in Config */
#define ST_EAGLE 28       /* EP_EagleBase variable */
#define ST_STORE 32       /* DTP_StoreBase variable */
#define ST_RUNS 36        /* runs of the node's code (its is_Data) */
#define ST_SIZE 40

#endif
