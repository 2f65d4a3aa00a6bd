| orvel's ProTracker-family player: the DeliTracker/EaglePlayer face of the
| replay in ptreplay.c. Formats: 31-instrument modules (M.K., M!K!, M&K!,
| N.T., FLT4, EXO4, 1CHN-4CHN, TDZ1-3) and 15-instrument Soundtracker files;
| the host's "type" option picks the tracker whose quirks the replay follows
| (pt30, nt10/nt20, st20, st24, ...), otherwise the file's layout decides.
|
| Timing: a CIA-B timer interrupt, not the Interrupt entry with SetTimer.
| Trackers count a tick as 2.5 / BPM seconds, which at 48 kHz is rarely a
| whole number of frames (923.08 at 130 BPM). SetTimer turns the period into
| whole frames for the host's Interrupt countdown, so a song drifts by up to
| half a frame per tick: 0.15 s over five minutes. The host's CIA timers keep
| the fractional part of their period and place each underflow in the frame
| where it falls, so what drift remains is the hardware's own (the latch
| counts whole E-clock ticks: 15 ms over eight minutes at 125 BPM), and a
| tempo change (Fxx) needs no host call: the new latch is loaded at once.
| The timer is CIA-B timer A, as ProTracker takes it, or timer B when A is
| taken; StartInt plays the first tick itself, so the song starts at once
| instead of one timer period late.
|
| Song end: the replay's hook calls DeliTracker's SongEnd whenever the song
| comes back to a row it has played; playback goes on, as in DeliTracker.

	.include "deliplayer.i"

	.section .text.entry,"ax"
	PLAYER_HEADER tags

tags:
	dc.l	DTP_PlayerVersion, 0x01000000	| 1.0: version in the high byte, revision in the next
	dc.l	DTP_PlayerName, name
	dc.l	DTP_Creator, creator
	dc.l	DTP_Check2, check
	dc.l	DTP_InitPlayer, init_player
	dc.l	DTP_EndPlayer, end_player
	dc.l	DTP_InitSound, init_sound
	dc.l	DTP_EndSound, end_sound
	dc.l	DTP_StartInt, start_int
	dc.l	DTP_StopInt, stop_int
	dc.l	0

| DeliTracker routines: A5 = the global base, handed to C as its argument.
| C keeps D2-D7/A2-A6 and returns D0; the routines return 0 for success.
	.macro	ENTRY label, function
\label:
	move.l	a5,-(sp)
	jsr	\function
	addq.l	#4,sp
	rts
	.endm

	ENTRY	check, pt_player_check
	ENTRY	init_player, pt_player_init
	ENTRY	end_player, pt_player_end
	ENTRY	init_sound, pt_player_init_sound
	ENTRY	end_sound, pt_player_end_sound
	ENTRY	start_int, pt_player_start
	ENTRY	stop_int, pt_player_stop

| The CIA-B interrupt server (is_Code): A1 = is_Data = the global base.
	.globl	pt_player_server
pt_player_server:
	move.l	a1,-(sp)
	jsr	pt_player_tick
	addq.l	#4,sp
	moveq	#0,d0
	rts

| ---- system calls for player.c; C arguments on the stack ----

EXEC_BASE	= 4		| address holding the exec library base
LVO_OPENLIBRARY	= -552
LVO_CLOSELIBRARY = -414
LVO_OPENRESOURCE = -498
LVO_ADDICRVECTOR = -6
LVO_REMICRVECTOR = -12
LVO_OPTIONS	= -24		| the host's option library: hand over the option block

| u32 pt_deli_call(const void *base, int index): function pointer `index`
| of the global base, called with A5 = base.
	.globl	pt_deli_call
pt_deli_call:
	move.l	a5,-(sp)
	move.l	8(sp),a5
	move.l	12(sp),d0
	add.l	d0,d0
	add.l	d0,d0
	move.l	DB_FUNCTIONS(a5,d0.l),a0
	jsr	(a0)
	move.l	(sp)+,a5
	rts

| void *pt_open_resource(const char *name); C takes a pointer from A0.
	.globl	pt_open_resource
pt_open_resource:
	move.l	a6,-(sp)
	move.l	8(sp),a1
	move.l	(EXEC_BASE).w,a6
	jsr	LVO_OPENRESOURCE(a6)
	move.l	d0,a0
	move.l	(sp)+,a6
	rts

| u32 pt_add_icr(void *resource, int bit, void *interrupt): 0 when the
| interrupt is ours, else the one that holds it already.
| void pt_rem_icr(void *resource, int bit, void *interrupt)
	.globl	pt_add_icr
	.globl	pt_rem_icr
pt_add_icr:
	moveq	#LVO_ADDICRVECTOR,d1
	bra.s	1f
pt_rem_icr:
	moveq	#LVO_REMICRVECTOR,d1
1:	move.l	a6,-(sp)
	move.l	8(sp),a6
	move.l	12(sp),d0
	move.l	16(sp),a1
	jsr	0(a6,d1.w)
	move.l	(sp)+,a6
	rts

| int pt_read_options(void *block): hands the option block to the host's
| option library; 0 when the library is not there (the flags stay 0).
	.globl	pt_read_options
pt_read_options:
	move.l	a6,-(sp)
	move.l	(EXEC_BASE).w,a6
	lea	option_library(pc),a1
	moveq	#0,d0
	jsr	LVO_OPENLIBRARY(a6)
	tst.l	d0
	beq.s	1f
	move.l	d0,a6
	move.l	8(sp),a0
	jsr	LVO_OPTIONS(a6)
	move.l	a6,a1
	move.l	(EXEC_BASE).w,a6
	jsr	LVO_CLOSELIBRARY(a6)
	moveq	#1,d0
1:	move.l	(sp)+,a6
	rts

name:	.asciz	"orvel ProTracker"
creator:
	.asciz	"orvel"
| The host serves its option library under any name beginning "ua".
option_library:
	.asciz	"uaoptions.library"
	.even
