/* Host-call probe player: the tests reach exec, dos, the DeliTracker
   functions, the CIA resources and the option library through these
   routines the way players do (layout in probe.h). */
#include "probe.h"

	.include "deliplayer.i"

DTP_StoreBase = 0x80004473

	.section .text.entry,"ax"
	PLAYER_HEADER tags
	dc.l	probes, state, node

tags:
	dc.l	DTP_PlayerName, name
	dc.l	DTP_Config, config
	dc.l	DTP_InitPlayer, init_player
	dc.l	DTP_Interrupt, interrupt
	dc.l	EP_EagleBase, state+ST_EAGLE
	dc.l	DTP_StoreBase, state+ST_STORE
	dc.l	0

probes:	dc.l	probe_lib, probe_fptr, probe_neg, probe_raw

config:
	move.l	a6,state+ST_CONFIG_A6
init_player:
	moveq	#0,d0
	rts

interrupt:
	addq.l	#1,state+ST_INTERRUPTS
	rts

/* Each takes the condition codes for the call in D6 and ends by storing
   D0, D1, A0, A1 and SR: a test sees which flags a host call sets. */
probe_lib:				/* A4 = library base, D7 = LVO */
	move.l	a4,a6
	move.w	d6,ccr
	jsr	0(a6,d7.w)
	bra.s	record

probe_fptr:				/* D7 = index into the function pointers */
	move.l	d7,a3
	add.l	a3,a3
	add.l	a3,a3
	move.l	DB_FUNCTIONS(a5,a3.l),a3
	move.w	d6,ccr
	jsr	(a3)
	bra.s	record

probe_neg:				/* D7 = negative offset from the base */
	move.w	d6,ccr
	jsr	0(a5,d7.w)
	bra.s	record

probe_raw:
	move.w	d6,ccr
	dc.w	0xA000			/* the test puts its opcode here */
record:
	move.w	sr,state+ST_SR
	movem.l	d0-d1/a0-a1,state+ST_D0
	rts

soft_code:				/* A1 = is_Data */
	addq.l	#1,(a1)
	rts

name:	.asciz	"host-call probe"
	.even

	.data
node:	dc.l	0, 0			/* exec Interrupt: the node, */
	dc.b	2, 0			/* NT_INTERRUPT, priority */
	dc.l	0
	dc.l	state+ST_RUNS, soft_code	/* is_Data, is_Code */

	.bss
state:	.space	ST_SIZE
