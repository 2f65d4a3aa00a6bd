| Byte-wise comparison for C code; the sign of the result is that of the
| first differing byte pair, compared unsigned.
|   int memcmp(const void *a, const void *b, unsigned n)

	.text
	.globl	memcmp
memcmp:
	movem.l	4(sp),a0-a1
	move.l	12(sp),d1
	bra.s	2f
1:	cmpm.b	(a1)+,(a0)+
	bne.s	3f
2:	subq.l	#1,d1
	bcc.s	1b
	moveq	#0,d0
	rts
3:	moveq	#0,d0
	moveq	#0,d1
	move.b	-(a0),d0
	move.b	-(a1),d1
	sub.l	d1,d0
	rts
