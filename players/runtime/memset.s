| Fill for C code: single bytes up to an even address, then longwords.
|   void *memset(void *dst, int c, unsigned n)

	.text
	.globl	memset
memset:
	move.l	4(sp),a0
	move.b	11(sp),d0
	lsl.w	#8,d0
	move.b	11(sp),d0
	move.w	d0,d1
	swap	d0
	move.w	d1,d0		| the byte in all four lanes
	move.l	12(sp),d1
	beq.s	done
	btst	#0,7(sp)
	beq.s	even
	move.b	d0,(a0)+
	subq.l	#1,d1
even:
	move.l	d1,a1		| keep the count for the tail
	lsr.l	#2,d1
	bra.s	2f
1:	move.l	d0,(a0)+
2:	subq.l	#1,d1
	bcc.s	1b
	move.l	a1,d1
	andi.l	#3,d1
	bra.s	4f
3:	move.b	d0,(a0)+
4:	subq.l	#1,d1
	bcc.s	3b
done:
	move.l	4(sp),d0
	movea.l	d0,a0		| pointer results go in both D0 and A0
	rts
