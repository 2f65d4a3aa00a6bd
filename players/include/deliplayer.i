| DeliTracker/EaglePlayer interface for players written in assembly: tag
| numbers, the offsets of the global base that arrives in A5, and the header
| that starts every player.

| DeliTracker tags: TAG_USER + 0x4455 + n.
DTP_RequestDTVersion	= 0x80004456
DTP_PlayerVersion	= 0x80004458
DTP_PlayerName		= 0x80004459
DTP_Creator		= 0x8000445A
DTP_Check1		= 0x8000445B
DTP_Check2		= 0x8000445C
DTP_ExtLoad		= 0x8000445D
DTP_Interrupt		= 0x8000445E
DTP_Config		= 0x80004460
DTP_SubSongRange	= 0x80004462
DTP_InitPlayer		= 0x80004463
DTP_EndPlayer		= 0x80004464
DTP_InitSound		= 0x80004465
DTP_EndSound		= 0x80004466
DTP_StartInt		= 0x80004467
DTP_StopInt		= 0x80004468
DTP_Volume		= 0x80004469
DTP_Balance		= 0x8000446A
| EaglePlayer tags: 0x80004550 + n.
EP_Voices		= 0x80004552
EP_Flags		= 0x8000455E
EP_InitAmplifier	= 0x80004573
EP_EagleBase		= 0x8000457A

| The global base (A5 in every routine).
DB_DOSBASE	= 0x04
DB_DIRBUFFER	= 0x18		| pointer to the module's directory
DB_FILEBUFFER	= 0x1C		| pointer to the module's file name
DB_PATHBUFFER	= 0x20		| pointer to the path buffer (LoadFile's name)
DB_MODULE	= 0x24		| module address
DB_MODULELEN	= 0x28		| module length in bytes
DB_SUBSONG	= 0x2C		| word: current subsong
DB_VOLUME	= 0x2E		| word: 0..64
DB_LEFTBAL	= 0x30		| word: 0..64
DB_RIGHTBAL	= 0x32		| word: 0..64
DB_TIMER	= 0x36		| word: CIA ticks per Interrupt call
DB_FUNCTIONS	= 0x38		| 33 function pointers, index order below
DB_VOICES	= 0x146		| word: voice mask

| Function pointers: move.l DB_FUNCTIONS+4*FN_x(a5),a0 then jsr (a0).
FN_GETLISTDATA	= 0
FN_LOADFILE	= 1
FN_COPYDIR	= 2
FN_COPYFILE	= 3
FN_COPYSTRING	= 4
FN_AUDIOALLOC	= 5
FN_AUDIOFREE	= 6
FN_SONGEND	= 9
FN_SETTIMER	= 11

| moveq #-1,d0 / rts makes the file harmless when started as a program; the
| signature follows, then the tag-list pointer.
	.macro	PLAYER_HEADER tags
	moveq	#-1,d0
	rts
	.ascii	"DELIRIUM"
	dc.l	\tags
	.endm
