// The one record that holds the whole emulated Amiga: CPU, chip RAM, custom
// chips, CIAs, the host side of the emulated OS and the playback engine.
// It is allocated once, zero-filled, and every component function takes it.
#pragma once

#include <cstdint>
#include <cstdio>

#include "chipset/cia.h"
#include "chipset/paula.h"

constexpr uint32_t CHIP_RAM_SIZE = 0x1000000;  // 16 MiB, the whole 24-bit space
// Paula may play a block that starts near the top of memory and runs on for
// up to 128 KiB; the guard keeps those reads inside host memory (always zero).
constexpr uint32_t CHIP_RAM_GUARD = 0x20000;

// Routine addresses and facts taken from a player's tag list.
struct DeliPlayer {
    uint32_t check1, check2, ext_load, interrupt, config, subsong_range;
    uint32_t init_player, end_player, init_sound, end_sound;
    uint32_t start_int, stop_int, volume, balance;
    uint32_t ep_voices, ep_init_amplifier;
    uint32_t player_name, creator;  // string addresses
    uint32_t ep_flags;
    uint16_t dt_version;      // RequestDTVersion, low 16 bits
    uint16_t player_version;  // PlayerVersion, high 16 bits
};

struct Machine {
    // ---- 68000 registers (first, in this order) ----
    uint32_t d[8];
    uint32_t a[8];  // a[7] is the active stack pointer
    uint32_t usp;   // inactive user stack pointer (while S = 1)
    uint32_t ssp;   // inactive supervisor stack pointer (while S = 0)
    uint32_t pc;
    uint32_t vbr;
    uint16_t sr;
    uint8_t stopped;
    uint8_t fault;  // bus fault: 0 none, 2 access past $FFFFFF

    // ---- custom chips: register file ----
    uint16_t dmacon, intreq, intena, adkcon;
    uint32_t aud_lc[4];
    uint16_t aud_len[4];
    uint16_t aud_per[4];
    uint8_t aud_vol[4];
    uint8_t aud_dma_on[4];
    uint8_t aud_was_active[4];
    uint8_t aud_queued[4];
    double aud_irq_countdown[4];
    uint32_t beam_v, beam_h;
    uint32_t custom_frame_rate;
    PaulaState paula;

    // ---- CIAs ----
    Cia cia[2];  // 0 = CIA-A ($BFExxx), 1 = CIA-B ($BFDxxx)
    int32_t cia_frame_rate;
    uint32_t cia_pending[8];
    uint32_t cia_pending_count;

    // ---- hunk loader ----
    uint32_t hunk_count;
    uint32_t hunk_size[64];
    uint32_t hunk_addr[64];
    uint32_t image_end;
    uint32_t alloc_slab;  // next free address of the AllocMem slab

    // ---- player host ----
    DeliPlayer player;
    uint32_t deli_neg_calls[512];
    uint32_t int_vectors[16];        // exec interrupt table: node per interrupt number
    uint8_t ciares_enable[2];        // CIA resources: enable mask
    uint8_t ciares_pending[2];       // CIA resources: pending mask
    uint32_t ciares_handler[2][5];   // CIA resources: node per ICR bit
    char epopt[256];                 // option string for this player and module
    FILE* dos_files[8];
    uint32_t file_list_addr[16];
    uint32_t file_list_len[16];
    uint32_t file_list_count;
    uint32_t file_list_top;
    uint32_t module_addr;
    uint32_t module_len;
    // Work a host call did on the player's behalf (bytes walked or copied),
    // charged to the routine's instruction budget so that no loop of host
    // calls can run for ever.
    uint32_t host_cost;

    // ---- playback engine and configuration ----
    uint32_t output_rate;
    float separation;
    uint32_t model;
    uint32_t led_filter;
    uint32_t audio_latency;  // microseconds
    int32_t tick_period;
    int32_t interrupt_period;
    int32_t tick_countdown;
    int32_t interrupt_countdown;
    uint32_t interrupt_entry;
    uint64_t frames_rendered;  // since orvel_start_playback
    uint32_t song_end_count;   // SongEnd calls seen since start
    uint64_t song_end_frame;   // frames_rendered at the first SongEnd call

    // ---- memory (last: everything above stays in a few cache lines) ----
    uint8_t chip_ram[CHIP_RAM_SIZE + CHIP_RAM_GUARD];
};
