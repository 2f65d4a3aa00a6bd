| Player for the diagnostic commands' golden tests. Assembly, so that every
| address in the golden files stays put whatever the compiler:
| - three hunks (code, data, BSS) for load;
| - tags from both ranges, their ends and beyond, and values on either side
|   of the 1 MiB image window for ep-info;
| - a start sequence whose InitPlayer copies a routine into AllocMem'd
|   memory and whose InitSound calls it there, for disasm-chip and trace-pc;
| - one of each call form, a 0x61FE word and values at even, odd and
|   overlapping offsets for callers and find.
	.include "deliplayer.i"

DTP_PrevSong	= 0x80004470	| last DeliTracker name
EP_Get_ModuleInfo = 0x80004550	| first EaglePlayer name
EP_SetPosition	= 0x8000457F	| last EaglePlayer name
MEMF_CHIP_CLEAR	= 0x10002
LVO_AllocMem	= -198

	.section .text.entry,"ax"
	PLAYER_HEADER tags

tags:
	dc.l	DTP_RequestDTVersion, 0x17
	dc.l	DTP_PlayerName, name
	dc.l	DTP_Creator, creator
	dc.l	DTP_Check2, check2
	dc.l	DTP_InitPlayer, init_player
	dc.l	DTP_InitSound, init_sound
	dc.l	DTP_Interrupt, interrupt
	dc.l	DTP_PrevSong, 0x000FFFFF	| just below the image window
	dc.l	DTP_PrevSong+1, 0x001FFFFF	| last byte of the window
	dc.l	EP_Get_ModuleInfo, info
	dc.l	EP_SetPosition, 0x00200000	| just above the window
	dc.l	EP_SetPosition+1, 0x12345678
	dc.l	0

| D0 = 0 (recognised) when the module starts with "DIAG".
check2:
	movea.l	DB_MODULE(a5),a0
	moveq	#-1,d0
	cmpi.l	#0x44494147,(a0)
	bne.s	1f
	moveq	#0,d0
1:	rts

| Refuses a module of under 8 bytes.
init_player:
	cmpi.l	#8,DB_MODULELEN(a5)
	blo.s	refuse
	moveq	#routine_end-routine,d0
	move.l	#MEMF_CHIP_CLEAR,d1
	jsr	LVO_AllocMem(a6)
	move.l	d0,installed
	beq.s	refuse
	movea.l	d0,a1
	lea	routine(pc),a0
	moveq	#(routine_end-routine)/2-1,d1
copy:	move.w	(a0)+,(a1)+
	dbf	d1,copy
	moveq	#0,d0
	rts
refuse:
	moveq	#-1,d0
	rts

init_sound:
	movea.l	installed,a0
	jsr	(a0)
	move.l	d0,result
	moveq	#0,d0
	rts

interrupt:
	rts

| Copied to allocated memory by InitPlayer: position-independent.
routine:
	moveq	#7,d0
	lsl.l	#4,d0
	addq.l	#2,d0
	rts
routine_end:

| Never executed: one of each call form that callers knows, all aimed at
| callee, and a word 0x61FE, which as a short branch would aim at itself.
callee:
	rts
	bsr.s	callee
	bsr.w	callee
	dc.w	0x61FF			| bsr.l (68020)
	dc.l	callee-.
	bra.w	callee
	jsr	(callee).l
	jmp	(callee).l
	bsr.w	later
	bra.w	trap
trap:	dc.w	0x61FE
later:	rts

| For find: 0x0BADCAFE at an even and at an odd offset, and 0xABCDABCD
| three times overlapping itself.
	dc.l	0x0BADCAFE
	dc.b	0, 0x0B, 0xAD, 0xCA, 0xFE, 0
	dc.w	0xABCD, 0xABCD, 0xABCD

creator:
	.asciz	"orvel tests, with a creator text longer than sixty characters in all"
	.even

	.data
installed:
	dc.l	0
result:	dc.l	0
name:	.asciz	"diagnostics test player"
info:	.asciz	"stops at the line end\nnot shown"
	.even

	.bss
workspace:
	.space	1024
