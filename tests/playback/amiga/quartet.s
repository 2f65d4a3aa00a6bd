| Quartet: a small four-voice player for the end-to-end tests and the
| benchmark. Check2 and InitPlayer accept only modules that start with
| "4VOX"; the replay itself is in quartet.c. The entry stubs lie at fixed
| places at the start of hunk 0, so their addresses do not move when the C
| code changes.
	.include "deliplayer.i"

	.section .text.entry,"ax"
	PLAYER_HEADER tags

tags:
	dc.l	DTP_PlayerVersion, 0x01020000
	dc.l	DTP_PlayerName, name
	dc.l	DTP_Creator, creator
	dc.l	DTP_Check2, check
	dc.l	DTP_InitPlayer, check
	dc.l	DTP_InitSound, init_sound
	dc.l	DTP_Interrupt, interrupt
	dc.l	DTP_EndSound, end_sound
	dc.l	0

check:
	move.l	a5,-(sp)
	jsr	quartet_check
	addq.l	#4,sp
	rts

init_sound:
	move.l	a5,-(sp)
	jsr	quartet_init
	addq.l	#4,sp
	jmp	-96(a5)			| AllocAudio: DMA master on

interrupt:
	move.l	a5,-(sp)
	jsr	quartet_tick
	addq.l	#4,sp
	rts

end_sound:
	move.w	#0x000f,0xdff096	| DMACON: all four channels off
	moveq	#0,d0
	rts

| void poke_per(const void* base, u32 channel, u32 period): the base's
| PokePer slot. C code may hold anything in A5, so the base is passed.
	.globl	poke_per
poke_per:
	move.l	4(sp),a0
	move.l	8(sp),d1
	move.l	12(sp),d0
	jmp	-264(a0)

name:	.asciz	"orvel quartet"
creator:
	.asciz	"orvel tests"
	.even
