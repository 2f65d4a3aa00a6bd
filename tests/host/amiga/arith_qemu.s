| Runs the runtime check under qemu-m68k (Linux user mode) and writes the
| results, then the buffer, to standard output.
SYS_exit = 1
SYS_write = 4

	.text
	.globl	_start
_start:
	jsr	arith_run
	move.l	#arith_results,d2
	move.l	arith_sizes,d3
	bsr.s	write_out
	move.l	#arith_buffer,d2
	move.l	arith_sizes+4,d3
	bsr.s	write_out
	moveq	#SYS_exit,d0
	moveq	#0,d1
	trap	#0

| write(1, d2, d3)
write_out:
	moveq	#SYS_write,d0
	moveq	#1,d1
	trap	#0
	rts
