| 32-bit division for C code on a 68000, whose DIVU divides 32 bits by 16
| and only yields a 16-bit quotient.
|   unsigned __udivsi3(unsigned a, unsigned b)    unsigned __umodsi3(...)
|   int __divsi3(int a, int b)                    int __modsi3(int a, int b)
| The signed forms truncate towards zero: the quotient is negative when the
| signs differ, the remainder takes the sign of the dividend. Division by
| zero takes the 68000's zero-divide trap, as a DIVU would.

	.text
	.globl	__udivsi3, __umodsi3, __divsi3, __modsi3

__udivsi3:
	movem.l	d2-d3,-(sp)
	movem.l	12(sp),d0-d1
	bsr.s	udivmod
	movem.l	(sp)+,d2-d3
	rts

__umodsi3:
	movem.l	d2-d3,-(sp)
	movem.l	12(sp),d0-d1
	bsr.s	udivmod
	move.l	d1,d0
	movem.l	(sp)+,d2-d3
	rts

__divsi3:
	movem.l	d2-d4,-(sp)
	movem.l	16(sp),d0-d1
	move.l	d0,d4
	eor.l	d1,d4		| sign of the quotient
	bsr.s	abs_both
	bsr.s	udivmod
	tst.l	d4
	bpl.s	1f
	neg.l	d0
1:	movem.l	(sp)+,d2-d4
	rts

__modsi3:
	movem.l	d2-d4,-(sp)
	movem.l	16(sp),d0-d1
	move.l	d0,d4		| sign of the remainder
	bsr.s	abs_both
	bsr.s	udivmod
	move.l	d1,d0
	tst.l	d4
	bpl.s	1f
	neg.l	d0
1:	movem.l	(sp)+,d2-d4
	rts

| d0 = |d0|, d1 = |d1|; -0x80000000 stays as it is, which read unsigned
| is its magnitude.
abs_both:
	tst.l	d0
	bpl.s	1f
	neg.l	d0
1:	tst.l	d1
	bpl.s	2f
	neg.l	d1
2:	rts

| d0 / d1 unsigned: quotient in d0, remainder in d1; d2 and d3 are used.
udivmod:
	cmp.l	#0xFFFF,d1
	bhi.s	wide
	| The divisor fits DIVU. Divide the high half first; its remainder and
	| the low half then make a dividend whose quotient fits 16 bits.
	move.l	d0,d2
	clr.w	d2
	swap	d2		| a >> 16
	divu.w	d1,d2		| d2 = r1:q1
	swap	d0		| d0 = a.lo:a.hi
	move.w	d2,d0		| d0 = a.lo:q1
	swap	d0		| d0 = q1:a.lo
	move.w	d0,d2		| d2 = r1:a.lo
	divu.w	d1,d2		| d2 = r2:q2
	move.w	d2,d0		| d0 = q1:q2
	clr.w	d2
	swap	d2
	move.l	d2,d1
	rts
wide:
	| A divisor of 17 bits or more leaves a quotient of at most 16 bits,
	| so shift-and-subtract starts with the top half already in the
	| remainder and runs 16 steps. Quotient bits enter d0 from the right
	| as the dividend's low half leaves it at the left. The remainder
	| never exceeds 31 bits before a shift, so the shift cannot overflow.
	move.l	d0,d2
	clr.w	d2
	swap	d2		| remainder: a >> 16
	swap	d0
	clr.w	d0		| a << 16
	moveq	#15,d3
1:	add.l	d0,d0		| next dividend bit into X
	addx.l	d2,d2
	cmp.l	d1,d2
	bcs.s	2f
	sub.l	d1,d2
	addq.w	#1,d0
2:	dbra	d3,1b
	move.l	d2,d1
	rts
