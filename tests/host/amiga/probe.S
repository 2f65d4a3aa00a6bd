/* Host-call probe player: routines that call exec, dos, the DeliTracker
   functions, the CIA resources and the fifth library the way players do,
   and leave what they saw in the state block (layout in probe.h). */
#include "probe.h"

	.include "deliplayer.i"

FN_CUTSUFFIX = 10

	.section .text.entry,"ax"
	PLAYER_HEADER tags
	dc.l	probes
	dc.l	state

tags:
	dc.l	DTP_PlayerName, name
	dc.l	DTP_InitPlayer, init_player
	dc.l	DTP_Interrupt, interrupt
	dc.l	0

#define PROBE_ENTRY(routine) dc.l probe_##routine;
probes:
	PROBE_ROUTINES(PROBE_ENTRY)

init_player:
	moveq	#0,d0
	rts

interrupt:
	addq.l	#1,state+ST_INTERRUPTS
	rts

/* ---- generic probes: registers in, registers and flags out ---- */

probe_LIB:
	move.l	a4,a6
	move.w	d6,ccr
	jsr	0(a6,d7.w)
	bra.w	record

probe_FPTR:
	move.l	d7,a3
	add.l	a3,a3
	add.l	a3,a3
	move.l	DB_FUNCTIONS(a5,a3.l),a3
	move.w	d6,ccr
	jsr	(a3)
	bra.w	record

probe_NEG:
	move.w	d6,ccr
	jsr	0(a5,d7.w)
	bra.w	record

probe_RAW:
	move.w	d6,ccr
	dc.w	0xA000			/* the test puts its opcode here */
	bra.w	record

record:
	move.w	sr,state+ST_SR
	movem.l	d0-d1/a0-a1,state+ST_D0
	rts

/* ---- what players do ---- */

/* The module's directory and name, packer suffix cut, ".smp" appended. */
probe_COMPANION:
	move.l	DB_PATHBUFFER(a5),a0
	clr.b	(a0)
	move.l	DB_FUNCTIONS+4*FN_COPYDIR(a5),a0
	jsr	(a0)
	move.l	DB_FUNCTIONS+4*FN_COPYFILE(a5),a0
	jsr	(a0)
	move.l	DB_FUNCTIONS+4*FN_CUTSUFFIX(a5),a0
	jsr	(a0)
	lea	companion_suffix(pc),a0
	move.l	DB_FUNCTIONS+4*FN_COPYSTRING(a5),a1
	jsr	(a1)
	move.l	DB_FUNCTIONS+4*FN_LOADFILE(a5),a0
	jsr	(a0)
	bne.w	record			/* not loaded */
	moveq	#1,d0
	move.l	DB_FUNCTIONS+4*FN_GETLISTDATA(a5),a1
	jsr	(a1)
	bra.w	record

probe_CAUSE:
	move.l	4.w,a6
	lea	soft_node,a1
	jsr	-180(a6)		/* Cause */
	addq.l	#1,state+ST_AFTER_CAUSE
	bra.w	record

soft_code:
	move.l	a1,state+ST_SOFT_A1
	addq.l	#1,state+ST_SOFT_RUNS
	rts

probe_CIA_START:
	move.l	4.w,a6
	lea	ciab_name(pc),a1
	jsr	-498(a6)		/* OpenResource */
	move.l	d0,state+ST_CIAB
	beq.s	1f
	move.l	d0,a6
	lea	timer_node,a1
	moveq	#0,d0			/* CIAICRB_TA */
	jsr	-6(a6)			/* AddICRVector */
	move.l	d0,state+ST_CIA_ADD
	move.b	#0x6B,0xBFD400		/* TALO: 14187 + 1 E-clock ticks, 50 Hz */
	move.b	#0x37,0xBFD500		/* TAHI */
	move.b	#0x11,0xBFDE00		/* CRA: START, LOAD, continuous */
1:	bra.w	record

probe_CIA_STOP:
	move.l	state+ST_CIAB,a6
	lea	timer_node,a1
	moveq	#0,d0
	jsr	-12(a6)			/* RemICRVector */
	bra.w	record

timer_code:
	move.l	a1,state+ST_TIMER_A1
	addq.l	#1,state+ST_TIMER_RUNS
	rts

probe_VBLANK:
	move.l	4.w,a6
	moveq	#5,d0			/* INTB_VERTB */
	lea	vbl_node,a1
	jsr	-168(a6)		/* AddIntServer */
	bra.w	record

vbl_code:
	addq.l	#1,state+ST_VBLANK_RUNS
	rts

probe_LOADSEG:
	move.l	4.w,a6
	lea	dos_name(pc),a1
	moveq	#0,d0
	jsr	-552(a6)		/* OpenLibrary */
	move.l	d0,a6
	jsr	-150(a6)		/* LoadSeg(D1) */
	move.l	d0,state+ST_SEG
	beq.s	2f
	moveq	#0,d2
	move.l	d0,d1
1:	addq.l	#1,d2			/* follow the BPTR links */
	lsl.l	#2,d1
	move.l	d1,a0
	move.l	(a0),d1
	bne.s	1b
	move.l	d2,state+ST_SEG_COUNT
	move.l	state+ST_SEG,d1
	lsl.l	#2,d1
	move.l	d1,a0
	jsr	4+16(a0)		/* reloc.s: lea data_word,a0 */
	move.l	a0,state+ST_SEG_A0
2:	bra.w	record

probe_OPTIONS:
	move.l	4.w,a6
	lea	options_name(pc),a1
	moveq	#0,d0
	jsr	-552(a6)		/* OpenLibrary */
	move.l	d0,a6
	lea	option_block,a0
	jsr	-24(a6)
	bra.w	record

name:	.asciz	"host-call probe"
companion_suffix:
	.asciz	".smp"
ciab_name:
	.asciz	"ciab.resource"
dos_name:
	.asciz	"dos.library"
options_name:				/* the fifth library: "ua" is all that counts */
	.asciz	"ua.library"
	.even

	.data
/* exec Interrupt structures: node (14 bytes), is_Data, is_Code. */
	.macro	INTERRUPT code
	dc.l	0, 0
	dc.b	2, 0			/* NT_INTERRUPT, priority */
	dc.l	0
	dc.l	state+ST_DATA
	dc.l	\code
	.endm
soft_node:	INTERRUPT soft_code
timer_node:	INTERRUPT timer_code
vbl_node:	INTERRUPT vbl_code

option_block:
	dc.l	2
	dc.l	option1, state+ST_OPT_FLAGS, state+ST_OPT_VALUE1
	dc.l	option2, state+ST_OPT_FLAGS+1, state+ST_OPT_VALUE2
option1:
	.asciz	"type"
option2:
	.asciz	"speed"
	.even

	.bss
state:	.space	ST_SIZE
