| 32-bit multiply for C code on a 68000, whose MULU only takes 16-bit
| operands. Of the four partial products of the halves, a.hi*b.hi lies
| wholly above bit 31 and the cross terms only count with their low word.
|   int __mulsi3(int a, int b)

	.text
	.globl	__mulsi3
__mulsi3:
	move.w	4(sp),d0	| a.hi
	mulu.w	10(sp),d0	| a.hi * b.lo
	move.w	8(sp),d1	| b.hi
	mulu.w	6(sp),d1	| b.hi * a.lo
	add.w	d1,d0
	swap	d0
	clr.w	d0		| cross terms, shifted into the high word
	move.w	6(sp),d1
	mulu.w	10(sp),d1	| a.lo * b.lo
	add.l	d1,d0
	rts
