| Not a player: a plain program, so entry+4 and entry+12 hold whatever its
| code and data happen to be.
	.text
	moveq	#0,d0
	rts
	.ascii	"SIGNATURE_TOO_LONG"
	.even
