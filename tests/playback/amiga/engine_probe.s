| Engine probe: a player whose routines log the order in which the engine
| calls them, and whose timed routines (Interrupt, a vertical-blank server,
| a CIA-B timer A handler, an AUD0 interrupt handler) each end in SongEnd,
| so that the host records the exact frame of every call. The module is its
| configuration. entry+16 points at the state record.
	.include "deliplayer.i"

| Module: big-endian longs.
CFG_FLAGS	= 0
CFG_CHECK2	= 4		| D0 returned by Check2
CFG_INIT	= 8		| D0 returned by InitPlayer
CFG_SUBSONGS	= 12		| D0 returned by SubSongRange
CFG_CIA_LATCH	= 16		| CIA-B timer A latch (low word)
CFG_TIMER	= 20		| timer word for SetTimer (low word)

| CFG_FLAGS bits.
F_VBLANK	= 0		| AddIntServer(5)
F_CIA		= 1		| ciab.resource AddICRVector(0), timer A running
F_TONE		= 2		| channel 0 plays a 100-word sample at period 428
F_AUDIRQ	= 3		| SetIntVector(7), AUD0 enabled in INTENA
F_SETTIMER	= 4		| SetTimer from the second Interrupt call on

| State record.
ST_FLAGS	= 0
ST_LOG_COUNT	= 4
ST_LOG		= 8		| routine numbers in call order
LOG_MAX		= 16
ST_VOICES	= 24		| D0 seen by EP_Voices
ST_SUBSONG	= 28		| base+$2C as InitSound saw it
ST_CALLS	= 32		| Interrupt, vertical blank, CIA, audio: one long each
ST_DATA		= 48		| A1 (is_Data) as the last server saw it

SAMPLE_WORDS	= 100

	.section .text.entry,"ax"
	PLAYER_HEADER tags
	dc.l	state

tags:
	dc.l	DTP_PlayerName, name
	dc.l	DTP_Check2, check2
	dc.l	DTP_ExtLoad, ext_load
	dc.l	DTP_InitPlayer, init_player
	dc.l	DTP_SubSongRange, subsong_range
	dc.l	EP_InitAmplifier, init_amplifier
	dc.l	DTP_InitSound, init_sound
	dc.l	DTP_StartInt, start_int
	dc.l	DTP_Volume, volume
	dc.l	EP_Voices, voices
	dc.l	DTP_Interrupt, interrupt
	dc.l	DTP_StopInt, stop_int
	dc.l	DTP_EndSound, end_sound
	dc.l	DTP_EndPlayer, end_player
	dc.l	0

| Appends the routine number in D1 to the log; keeps D0.
log:
	lea	state,a0
	move.l	ST_LOG_COUNT(a0),d2
	cmp.l	#LOG_MAX,d2
	bcc.s	1f
	move.b	d1,ST_LOG(a0,d2.w)
	addq.l	#1,ST_LOG_COUNT(a0)
1:	rts

| Logs routine D1 and returns the module's long at offset D3.
log_and_answer:
	bsr	log
	move.l	DB_MODULE(a5),a0
	move.l	(a0,d3.w),d0
	rts

check2:
	moveq	#1,d1
	moveq	#CFG_CHECK2,d3
	bra	log_and_answer

ext_load:
	moveq	#0,d0
	moveq	#2,d1
	bra	log

init_player:
	moveq	#3,d1
	bsr	log
	move.l	DB_MODULE(a5),a2
	move.l	CFG_FLAGS(a2),d7
	move.l	d7,state+ST_FLAGS
	move.l	4.w,a6
	btst	#F_VBLANK,d7
	beq.s	1f
	moveq	#5,d0
	lea	vblank_node,a1
	jsr	-168(a6)		| AddIntServer
1:	btst	#F_CIA,d7
	beq.s	2f
	lea	ciab_name,a1
	jsr	-498(a6)		| OpenResource
	move.l	d0,a6
	moveq	#0,d0			| ICR bit 0: timer A
	lea	cia_node,a1
	jsr	-6(a6)			| AddICRVector
	move.l	4.w,a6
	move.b	CFG_CIA_LATCH+3(a2),0xbfd400	| TALO
	move.b	CFG_CIA_LATCH+2(a2),0xbfd500	| TAHI
	move.b	#0x11,0xbfde00			| CRA: START and LOAD, continuous
2:	btst	#F_AUDIRQ,d7
	beq.s	3f
	moveq	#7,d0
	lea	audio_node,a1
	jsr	-162(a6)		| SetIntVector
	move.w	#0xc080,0xdff09a	| INTENA: master and AUD0
3:	btst	#F_TONE,d7
	beq.s	4f
	lea	0xdff000,a0
	move.l	#sample,0xa0(a0)	| AUD0LC
	move.w	#SAMPLE_WORDS,0xa4(a0)	| AUD0LEN
	move.w	#428,0xa6(a0)		| AUD0PER
	move.w	#64,0xa8(a0)		| AUD0VOL
	move.w	#0x8201,0x96(a0)	| DMACON: master and AUD0
4:	move.l	CFG_INIT(a2),d0
	rts

subsong_range:
	moveq	#4,d1
	moveq	#CFG_SUBSONGS,d3
	bra	log_and_answer

init_amplifier:
	moveq	#5,d1
	bra	log

init_sound:
	move.w	DB_SUBSONG(a5),state+ST_SUBSONG+2
	moveq	#6,d1
	bra	log

start_int:
	moveq	#7,d1
	bra	log

volume:
	moveq	#8,d1
	bra	log

voices:
	move.l	d0,state+ST_VOICES
	moveq	#9,d1
	bra	log

stop_int:
	moveq	#10,d1
	bra	log

end_sound:
	moveq	#11,d1
	bra	log

end_player:
	moveq	#12,d1
	bra	log

interrupt:
	moveq	#0,d1
	bsr	tick
	lea	state,a0
	btst	#F_SETTIMER,ST_FLAGS+3(a0)
	beq.s	song_end
	cmp.l	#2,ST_CALLS(a0)
	bcs.s	song_end
	move.l	DB_MODULE(a5),a1
	move.w	CFG_TIMER+2(a1),DB_TIMER(a5)
	move.l	DB_FUNCTIONS+4*FN_SETTIMER(a5),a0
	jsr	(a0)
song_end:
	move.l	DB_FUNCTIONS+4*FN_SONGEND(a5),a0
	jmp	(a0)

| Counts a call in counter D1 and sets AUD0's period from the total so far,
| so that the sound depends on when the calls came.
tick:
	lea	state+ST_CALLS,a0
	lsl.w	#2,d1
	addq.l	#1,(a0,d1.w)
	move.l	(a0),d0
	add.l	4(a0),d0
	add.l	8(a0),d0
	and.w	#31,d0
	lsl.w	#3,d0
	add.w	#200,d0
	move.w	d0,0xdff0a6		| AUD0PER
	rts

vblank_server:
	move.l	a1,state+ST_DATA
	moveq	#1,d1
	bsr	tick
	bra	song_end

cia_server:
	move.l	a1,state+ST_DATA
	moveq	#2,d1
	bsr	tick
	bra	song_end

| Leaves the period alone: the next request's distance is computed from it.
audio_server:
	move.l	a1,state+ST_DATA
	addq.l	#1,state+ST_CALLS+12
	bra	song_end

name:	.asciz	"orvel engine probe"
ciab_name:
	.asciz	"ciab.resource"
	.even

	.data
state:	.fill	64,1,0

| exec Interrupt structures: node (14 bytes), is_Data, is_Code.
	.macro	SERVER data, code
	dc.l	0, 0
	dc.b	2, 0
	dc.l	0
	dc.l	\data, \code
	.endm
vblank_node:	SERVER 0x56424c4b, vblank_server	| 'VBLK'
cia_node:	SERVER 0x43494142, cia_server		| 'CIAB'
audio_node:	SERVER 0x41554430, audio_server		| 'AUD0'

| A square wave, both halves of the 100 words.
sample:	.fill	100,1,0x60
	.fill	100,1,0xa0
