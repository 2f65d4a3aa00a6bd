// Checking what the real-time output delivered: raw float32 stereo captures
// (ALSA's file plugin) against a known signal or against a WAV render.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A test signal whose every frame names its own index, exactly, in float
// and still distinctly after the WAV writer's 16-bit rounding. No frame is
// silent, so a capture's leading silence is the output's own prefill.
void signal_frame(uint64_t index, float* frame);
// The index a captured frame carries, or -1 if it is not a signal frame.
int64_t signal_index(const float* frame);

// Whole files; false with a reason in `error`.
bool read_raw_f32(const std::string& path, std::vector<float>& samples, std::string& error);
bool read_wav_s16(const std::string& path, std::vector<int16_t>& samples, std::string& error);

struct CaptureMatch {
    bool ok;
    std::string message;  // why not, or what was compared
    uint32_t offset;      // capture frame where the reference's frame 0 lies
    uint32_t compared;    // frames compared
};

// Finds the reference (a WAV render) in the capture after the output's
// leading silence and compares the overlap sample by sample, the capture
// rounded as the WAV writer rounds. At least `min_frames` frames from the
// reference's first sound on must overlap.
CaptureMatch capture_match(const std::vector<float>& capture, const std::vector<int16_t>& reference,
                           uint32_t min_frames);
