| The runtime check as a player: InitPlayer runs it; entry+16, +20: results, buffer (arith.c).
	.include "deliplayer.i"

	.section .text.entry,"ax"
	PLAYER_HEADER tags
	dc.l	arith_results, arith_buffer

tags:
	dc.l	DTP_InitPlayer, init
	dc.l	0

init:
	jsr	arith_run
	moveq	#0,d0
	rts
