| Block copies for C code. The 68000 faults on word and long accesses at
| odd addresses, so longwords are moved only when both pointers are even.
|   void *memcpy(void *dst, const void *src, unsigned n)
|   void *memmove(void *dst, const void *src, unsigned n)

	.text
	.globl	memcpy, memmove

memmove:
	movem.l	4(sp),a0-a1
	move.l	12(sp),d1
	cmpa.l	a1,a0
	bls.s	forward		| dst at or below src: a forward copy is safe
	move.l	a1,d0
	add.l	d1,d0
	cmp.l	a0,d0
	bls.s	forward		| src ends before dst starts
	adda.l	d1,a0
	adda.l	d1,a1
	bra.s	2f
1:	move.b	-(a1),-(a0)
2:	subq.l	#1,d1
	bcc.s	1b
	move.l	4(sp),d0
	movea.l	d0,a0		| pointer results go in both D0 and A0
	rts

memcpy:
	movem.l	4(sp),a0-a1
	move.l	12(sp),d1
forward:
	btst	#0,7(sp)	| dst odd?
	bne.s	bytes
	btst	#0,11(sp)	| src odd?
	bne.s	bytes
	move.l	d1,d0
	lsr.l	#2,d0
	bra.s	2f
1:	move.l	(a1)+,(a0)+
2:	subq.l	#1,d0
	bcc.s	1b
	andi.l	#3,d1
bytes:
	bra.s	2f
1:	move.b	(a1)+,(a0)+
2:	subq.l	#1,d1
	bcc.s	1b
	move.l	4(sp),d0
	movea.l	d0,a0		| pointer results go in both D0 and A0
	rts
