| A tag list of 300 pairs with no end: ep-info stops after 256.
	.include "deliplayer.i"

	.text
	PLAYER_HEADER tags
tags:
	.set	n, 1
	.rept	300
	dc.l	0x80000000+n, n
	.set	n, n+1
	.endr
