| Code, data and BSS hunks that point into each other, at offsets the tests know.
	.text
code_start:
	dc.l	data_word		| 0: hunk 1 + 4
	dc.l	bss_block+8		| 4: hunk 2 + 72
	dc.l	code_mark		| 8: hunk 0 + 24
	dc.l	0xDFF096		| 12: absolute, left alone
	lea	data_word,a0		| 16: 41F9, operand at 18: hunk 1 + 4
	rts				| 22
code_mark:
	dc.w	0x1234			| 24

	.data
	dc.l	0xCAFEF00D		| 0
data_word:
	dc.l	code_start		| 4: hunk 0
	dc.l	bss_block		| 8: hunk 2 + 64

	.bss
	.space	64
bss_block:
	.space	256
