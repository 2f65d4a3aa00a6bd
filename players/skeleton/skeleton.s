| Player skeleton: the header and tag list DeliTracker/EaglePlayer look for
| at the start of hunk 0, and entry stubs that hand the global base (A5) to
| the routines in skeleton.c. A new player starts as a copy of this pair.

	.include "deliplayer.i"

	.section .text.entry,"ax"
	PLAYER_HEADER tags

tags:
	dc.l	DTP_PlayerName, name
	dc.l	DTP_Creator, creator
	dc.l	DTP_InitPlayer, init_player
	dc.l	DTP_Interrupt, interrupt
	dc.l	0

| C routines take the base as their argument and keep D2-D7/A2-A6 intact;
| D0 carries the result back.
init_player:
	move.l	a5,-(sp)
	jsr	skeleton_init
	addq.l	#4,sp
	rts

interrupt:
	move.l	a5,-(sp)
	jsr	skeleton_interrupt
	addq.l	#4,sp
	rts

name:	.asciz	"orvel skeleton"
creator:
	.asciz	"orvel"
	.even
