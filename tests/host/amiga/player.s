| Test player: every kind of tag the host records, and routines that leave
| evidence of their calls in `state` (player.c). entry+16 points at it.
	.include "deliplayer.i"

DTP_StoreBase = 0x80004473
UNKNOWN_TAG = 0x80004470

	.section .text.entry,"ax"
	PLAYER_HEADER tags
	dc.l	state

tags:
	dc.l	DTP_RequestDTVersion, 0x00010017
	dc.l	DTP_PlayerVersion, 0x00030009
	dc.l	DTP_PlayerName, name
	dc.l	DTP_Creator, creator
	dc.l	UNKNOWN_TAG, 0x12345678
	dc.l	DTP_Config, config
	dc.l	DTP_InitPlayer, init_player
	dc.l	DTP_EndPlayer, end_player
	dc.l	DTP_Interrupt, interrupt
	dc.l	EP_Flags, 0x00000041
	dc.l	EP_EagleBase, state+8
	dc.l	DTP_StoreBase, state+12
	dc.l	0

config:
	move.l	a6,state+4
	jmp	player_config

init_player:
	move.l	a5,-(sp)
	jsr	player_init
	addq.l	#4,sp
	rts

end_player:
	moveq	#-2,d0
	rts

interrupt:
	move.l	a5,-(sp)
	jsr	player_interrupt
	addq.l	#4,sp
	rts

name:	.asciz	"test player"
creator:
	.asciz	"orvel tests"
	.even
