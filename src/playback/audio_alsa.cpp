// Real-time output through ALSA's "default" PCM: 48000 Hz float stereo,
// written from a pull thread that sleeps in poll() until the device has room
// and then refills the whole buffer from the audio callback.
#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "playback/audio.h"
#include "playback/audio_thread.h"

namespace {

constexpr unsigned ALSA_RATE = 48000;
constexpr unsigned ALSA_CHANNELS = 2;
constexpr unsigned PERIODS_PER_BUFFER = 4;  // the thread refills when a quarter has played
constexpr unsigned PERIODS_MIN = 2;         // with one period the device would drain before a refill
constexpr int WAIT_TIMEOUT_MS = 500;
constexpr int RT_PRIORITY = 10;  // SCHED_FIFO: above ordinary threads, below the kernel's IRQ threads
// A sink that takes data faster than real time (the null device, a file) is
// fed at most this much ahead of the wall clock, in thousandths. A sound card
// runs within a few hundred ppm of the clock and never meets the limit.
constexpr int64_t PACE_PER_MILLE = 1010;

AudioCallback alsa_callback;
void* alsa_userdata;
snd_pcm_t* alsa_pcm;
uint32_t alsa_buffer_frames;
uint32_t alsa_period_frames;
uint32_t alsa_underrun_count;
std::atomic<uint32_t> alsa_running;
pthread_t alsa_thread;
bool alsa_thread_made;
float* alsa_buffer;           // one buffer of interleaved frames for the callback
struct pollfd* alsa_pollfds;  // [0] = the wake-up pipe, then the PCM's descriptors
int alsa_pcm_nfds;
int alsa_wake[2] = {-1, -1};  // audio_close writes a byte to end the thread's wait at once

void quiet_alsa(const char*, int, const char*, int, const char*, ...) {}

bool check(int err, const char* what) {
    if (err >= 0) return true;
    std::fprintf(stderr, "alsa_open: %s failed: %s\n", what, snd_strerror(err));
    return false;
}

// Float stereo at exactly 48000 Hz (the plug layer converts for the card);
// buffer of latency_us but at least two of the device's smallest periods.
bool configure_hw(uint32_t latency_us) {
    snd_pcm_hw_params_t* hw;
    if (!check(snd_pcm_hw_params_malloc(&hw), "snd_pcm_hw_params_malloc")) return false;
    unsigned periods = PERIODS_MIN;
    unsigned period_min = 0;
    int dir = 0;
    bool ok = check(snd_pcm_hw_params_any(alsa_pcm, hw), "snd_pcm_hw_params_any") &&
              check(snd_pcm_hw_params_set_rate_resample(alsa_pcm, hw, 1), "snd_pcm_hw_params_set_rate_resample") &&
              check(snd_pcm_hw_params_set_access(alsa_pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED),
                    "snd_pcm_hw_params_set_access(RW_INTERLEAVED)") &&
              check(snd_pcm_hw_params_set_format(alsa_pcm, hw, SND_PCM_FORMAT_FLOAT_LE),
                    "snd_pcm_hw_params_set_format(FLOAT_LE)") &&
              check(snd_pcm_hw_params_set_channels(alsa_pcm, hw, ALSA_CHANNELS), "snd_pcm_hw_params_set_channels(2)") &&
              check(snd_pcm_hw_params_set_rate(alsa_pcm, hw, ALSA_RATE, 0), "snd_pcm_hw_params_set_rate(48000)") &&
              check(snd_pcm_hw_params_set_periods_min(alsa_pcm, hw, &periods, &dir), "snd_pcm_hw_params_set_periods_min") &&
              check(snd_pcm_hw_params_get_period_time_min(hw, &period_min, &dir), "snd_pcm_hw_params_get_period_time_min");
    if (ok) {
        unsigned buffer_us = latency_us > PERIODS_MIN * period_min ? latency_us : PERIODS_MIN * period_min;
        ok = check(snd_pcm_hw_params_set_buffer_time_near(alsa_pcm, hw, &buffer_us, &dir),
                   "snd_pcm_hw_params_set_buffer_time_near");
        unsigned period_us = buffer_us / PERIODS_PER_BUFFER;
        ok = ok && check(snd_pcm_hw_params_set_period_time_near(alsa_pcm, hw, &period_us, &dir),
                         "snd_pcm_hw_params_set_period_time_near") &&
             check(snd_pcm_hw_params(alsa_pcm, hw), "snd_pcm_hw_params");
    }
    snd_pcm_hw_params_free(hw);
    return ok;
}

// Start once the buffer is full; wake when a period is free.
bool configure_sw() {
    snd_pcm_uframes_t buffer = 0, period = 0;
    if (!check(snd_pcm_get_params(alsa_pcm, &buffer, &period), "snd_pcm_get_params")) return false;
    alsa_buffer_frames = uint32_t(buffer);
    alsa_period_frames = uint32_t(period);
    snd_pcm_sw_params_t* sw;
    if (!check(snd_pcm_sw_params_malloc(&sw), "snd_pcm_sw_params_malloc")) return false;
    bool ok = check(snd_pcm_sw_params_current(alsa_pcm, sw), "snd_pcm_sw_params_current") &&
              check(snd_pcm_sw_params_set_start_threshold(alsa_pcm, sw, buffer), "snd_pcm_sw_params_set_start_threshold") &&
              check(snd_pcm_sw_params_set_avail_min(alsa_pcm, sw, period), "snd_pcm_sw_params_set_avail_min") &&
              check(snd_pcm_sw_params(alsa_pcm, sw), "snd_pcm_sw_params");
    snd_pcm_sw_params_free(sw);
    return ok;
}

bool make_poll_set() {
    if (pipe2(alsa_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::fprintf(stderr, "alsa_open: pipe2 failed: %s\n", std::strerror(errno));
        alsa_wake[0] = alsa_wake[1] = -1;
        return false;
    }
    alsa_pcm_nfds = snd_pcm_poll_descriptors_count(alsa_pcm);
    if (!check(alsa_pcm_nfds, "snd_pcm_poll_descriptors_count")) return false;
    alsa_pollfds = static_cast<struct pollfd*>(std::calloc(size_t(alsa_pcm_nfds) + 1, sizeof(struct pollfd)));
    if (!alsa_pollfds) {
        std::fprintf(stderr, "alsa_open: out of memory\n");
        return false;
    }
    alsa_pollfds[0].fd = alsa_wake[0];
    alsa_pollfds[0].events = POLLIN;
    int n = snd_pcm_poll_descriptors(alsa_pcm, alsa_pollfds + 1, unsigned(alsa_pcm_nfds));
    return check(n, "snd_pcm_poll_descriptors");
}

// The stream starts with one buffer of silence.
bool prefill() {
    std::memset(alsa_buffer, 0, size_t(alsa_buffer_frames) * ALSA_CHANNELS * sizeof(float));
    snd_pcm_sframes_t w = snd_pcm_writei(alsa_pcm, alsa_buffer, alsa_buffer_frames);
    if (w < 0) return check(int(w), "snd_pcm_writei prefill");
    if (snd_pcm_state(alsa_pcm) == SND_PCM_STATE_PREPARED)
        return check(snd_pcm_start(alsa_pcm), "snd_pcm_start");
    return true;
}

void note_underrun() {
    alsa_underrun_count++;
    if (audio_underrun_reported(alsa_underrun_count))
        std::fprintf(stderr, "alsa_thread: underrun #%u (device drained before wake)\n", alsa_underrun_count);
}

// Recover from an xrun or a suspend; false if the stream is beyond repair.
bool recover(int err) {
    if (err == -EPIPE) note_underrun();
    int r = snd_pcm_recover(alsa_pcm, err, 1);
    if (r < 0) {
        std::fprintf(stderr, "alsa_thread: snd_pcm_recover(%s) failed: %s\n", snd_strerror(err), snd_strerror(r));
        return false;
    }
    return true;
}

void raise_priority() {
    sched_param sp{};
    sp.sched_priority = RT_PRIORITY;
    int err = pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp);
    if (err == 0) std::fprintf(stderr, "alsa: audio thread SCHED_FIFO priority %d\n", RT_PRIORITY);
    else std::fprintf(stderr, "alsa: pthread_setschedparam(SCHED_FIFO %d) failed: %s\n", RT_PRIORITY, std::strerror(err));
}

struct Feed {
    std::chrono::steady_clock::time_point start;
    int64_t fed;       // frames written since the prefill
    uint32_t pending;  // frames produced by the callback but not yet taken by the device
    uint32_t offset;   // first of them in alsa_buffer
};

// Frames the clock allows now: one buffer ahead of real time, plus the margin.
int64_t pace_budget(const Feed& f) {
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - f.start).count();
    return int64_t(us) * ALSA_RATE * PACE_PER_MILLE / 1000 / 1000000 + alsa_buffer_frames - f.fed;
}

// Writes up to n frames, producing more from the callback as the device
// takes them. A short write keeps the rest for the next wake so that nothing
// the callback produced is lost or repeated. Returns the frames written, or
// -1 if the stream failed for good.
int64_t feed(Feed& f, int64_t n) {
    int64_t written = 0;
    while (n > 0) {
        if (f.pending == 0) {
            uint32_t chunk = n < alsa_buffer_frames ? uint32_t(n) : alsa_buffer_frames;
            std::memset(alsa_buffer, 0, size_t(chunk) * ALSA_CHANNELS * sizeof(float));
            alsa_callback(alsa_userdata, alsa_buffer, chunk);
            f.pending = chunk;
            f.offset = 0;
        }
        snd_pcm_uframes_t want = n < f.pending ? snd_pcm_uframes_t(n) : f.pending;
        snd_pcm_sframes_t w = snd_pcm_writei(alsa_pcm, alsa_buffer + size_t(f.offset) * ALSA_CHANNELS, want);
        if (w == -EAGAIN || w == 0) break;
        if (w < 0) return recover(int(w)) ? written : -1;
        f.pending -= uint32_t(w);
        f.offset += uint32_t(w);
        f.fed += w;
        written += w;
        n -= w;
    }
    return written;
}

void* alsa_thread_proc(void*) {
    audio_flush_denormals();
    raise_priority();
    Feed f{std::chrono::steady_clock::now(), 0, 0, 0};
    bool idle = false;  // the last wake-up moved nothing
    while (alsa_running.load() == 1) {
        // When the clock holds the feed back, or the device woke us without
        // taking anything, sleep on the wake-up pipe alone for about a
        // period; otherwise wait for the device.
        int64_t budget = pace_budget(f);
        bool paced = budget < int64_t(alsa_period_frames);
        int timeout = WAIT_TIMEOUT_MS;
        if (paced) timeout = int((alsa_period_frames - budget) * 1000 / ALSA_RATE) + 1;
        else if (idle) timeout = int(alsa_period_frames * 1000 / ALSA_RATE) + 1;
        bool device = !paced && !idle;
        int r = poll(alsa_pollfds, device ? nfds_t(alsa_pcm_nfds) + 1 : 1, timeout);
        if (alsa_running.load() != 1) break;
        if (r < 0) {
            if (errno == EINTR) continue;
            std::fprintf(stderr, "alsa_thread: poll failed: %s\n", std::strerror(errno));
            break;
        }
        idle = false;
        if (!device || r == 0) continue;
        unsigned short revents = 0;
        snd_pcm_poll_descriptors_revents(alsa_pcm, alsa_pollfds + 1, unsigned(alsa_pcm_nfds), &revents);
        if (!(revents & (POLLOUT | POLLERR | POLLHUP | POLLNVAL))) continue;
        snd_pcm_sframes_t avail = snd_pcm_avail_update(alsa_pcm);
        if (avail < 0) {
            if (!recover(int(avail))) break;
            continue;
        }
        budget = pace_budget(f);
        int64_t written = feed(f, avail < budget ? avail : budget);
        if (written < 0) break;
        idle = written == 0;
    }
    return nullptr;
}

}  // namespace

int audio_open(uint32_t latency_us, AudioCallback callback, void* context) {
    if (alsa_pcm || alsa_thread_made) {
        std::fprintf(stderr, "alsa_open: output already open\n");
        return -1;
    }
    alsa_callback = callback;
    alsa_userdata = context;
    alsa_underrun_count = 0;
    // alsa-lib reports its own errors as several lines of its internals; the
    // failing call's one-line message below says what the user needs.
    snd_lib_error_set_handler(quiet_alsa);

    int err = snd_pcm_open(&alsa_pcm, "default", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (err < 0) {
        std::fprintf(stderr, "alsa_open: snd_pcm_open(default) failed: %s\n", snd_strerror(err));
        alsa_pcm = nullptr;
        return -1;
    }
    bool ok = configure_hw(latency_us) && configure_sw() && make_poll_set();
    if (ok) {
        alsa_buffer = static_cast<float*>(std::calloc(size_t(alsa_buffer_frames) * ALSA_CHANNELS, sizeof(float)));
        if (!alsa_buffer) std::fprintf(stderr, "alsa_open: out of memory for %u frames\n", alsa_buffer_frames);
        ok = alsa_buffer && prefill();
    }
    if (!ok) {
        audio_close();
        return -1;
    }
    std::fprintf(stderr, "alsa: %u Hz f32 stereo, buffer %u frames (%.2f ms), period %u frames (%.2f ms), pcm %s (%s)\n",
                 ALSA_RATE, alsa_buffer_frames, alsa_buffer_frames * 1000.0 / ALSA_RATE, alsa_period_frames,
                 alsa_period_frames * 1000.0 / ALSA_RATE, snd_pcm_name(alsa_pcm),
                 snd_pcm_type_name(snd_pcm_type(alsa_pcm)));

    alsa_running.exchange(1);
    err = pthread_create(&alsa_thread, nullptr, alsa_thread_proc, nullptr);
    if (err != 0) {
        std::fprintf(stderr, "alsa_open: pthread_create failed: %s\n", std::strerror(err));
        alsa_running.store(0);
        audio_close();
        return -1;
    }
    alsa_thread_made = true;
    return 0;
}

void audio_close() {
    if (alsa_thread_made) {
        alsa_running.store(0);
        char wake = 1;
        ssize_t ignored = write(alsa_wake[1], &wake, 1);
        (void)ignored;
        pthread_join(alsa_thread, nullptr);
        alsa_thread_made = false;
    }
    if (alsa_pcm) {
        snd_pcm_drop(alsa_pcm);
        snd_pcm_close(alsa_pcm);
        alsa_pcm = nullptr;
    }
    for (int& fd : alsa_wake) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    std::free(alsa_pollfds);
    alsa_pollfds = nullptr;
    std::free(alsa_buffer);
    alsa_buffer = nullptr;
}
