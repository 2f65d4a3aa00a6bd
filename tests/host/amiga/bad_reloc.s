| A 16-bit absolute reference to a label: valid for the linker, but a hunk
| file has no relocation that could express it.
	.text
start:
	moveq	#0,d0
	rts
	dc.w	start
