| A 16-bit absolute reference: valid for the linker, but no hunk relocation expresses it.
	.text
start:
	moveq	#0,d0
	rts
	dc.w	start
