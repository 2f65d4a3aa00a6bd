// Real-time output through the Windows audio session API: an event-driven
// shared-mode stream on the default render endpoint, 48000 Hz float stereo,
// fed by its own "Pro Audio" thread that refills the whole buffer whenever
// the endpoint signals. The audio engine converts to the device's own mix
// format when that differs.
#include <windows.h>
// windows.h first: the audio headers build on its types.
#include <audioclient.h>
#include <avrt.h>
#include <mmdeviceapi.h>
#include <mmsystem.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "playback/audio.h"
#include "playback/audio_thread.h"

namespace {

// The interface and class identifiers, spelled out so that no GUID library
// or __uuidof support is needed.
constexpr GUID MMDEVICE_ENUMERATOR_CLSID = {0xbcde0395, 0xe52f, 0x467c, {0x8e, 0x3d, 0xc4, 0x57, 0x92, 0x91, 0x69, 0x2e}};
constexpr GUID MMDEVICE_ENUMERATOR_IID = {0xa95664d2, 0x9614, 0x4f35, {0xa7, 0x46, 0xde, 0x8d, 0xb6, 0x36, 0x17, 0xe6}};
constexpr GUID AUDIO_CLIENT_IID = {0x1cb9ad4c, 0xdbfa, 0x4c32, {0xb1, 0x78, 0xc2, 0xf5, 0x68, 0xa7, 0x03, 0xb2}};
constexpr GUID AUDIO_RENDER_CLIENT_IID = {0xf294acfc, 0x3146, 0x4483, {0xa7, 0xbf, 0xad, 0xdc, 0xa7, 0xc2, 0x60, 0xe2}};

constexpr DWORD STREAM_RATE = 48000;
constexpr WORD STREAM_CHANNELS = 2;
constexpr WORD STREAM_BITS = 32;
constexpr WORD FORMAT_PCM = 1;
constexpr WORD FORMAT_IEEE_FLOAT = 3;
constexpr WORD FORMAT_EXTENSIBLE = 0xFFFE;
// Event callback, automatic PCM conversion, default-quality sample-rate conversion.
constexpr DWORD STREAM_FLAGS = 0x88040000;
constexpr double HNS_PER_SECOND = 10000000.0;  // REFERENCE_TIME counts 100 ns
constexpr DWORD WAIT_TIMEOUT_MS = 500;
constexpr UINT TIMER_PERIOD_MS = 1;

AudioCallback wasapi_callback;
void* wasapi_userdata;
uint32_t wasapi_channels;
uint32_t wasapi_buffer_frames;
uint32_t wasapi_underrun_count;
std::atomic<uint32_t> wasapi_running;
uint32_t wasapi_started;
uint32_t wasapi_com_inited;
uint32_t wasapi_timer_period_set;
IMMDeviceEnumerator* wasapi_enum;
IMMDevice* wasapi_device;
IAudioClient* wasapi_client;
IAudioRenderClient* wasapi_render;
HANDLE wasapi_event;
HANDLE wasapi_thread;

// Prints the message with the HRESULT if the call failed.
bool failed(HRESULT hr, const char* format) {
    if (SUCCEEDED(hr)) return false;
    std::fprintf(stderr, format, static_cast<unsigned long>(hr));
    return true;
}

const char* format_tag_name(WORD tag) {
    switch (tag) {
        case FORMAT_PCM: return "PCM";
        case FORMAT_IEEE_FLOAT: return "FLOAT";
        case FORMAT_EXTENSIBLE: return "EXTENSIBLE";
        default: return "?";
    }
}

// Reports the device's own mix format; true if the engine has to convert
// (anything but 48000 Hz stereo).
bool report_mix_format() {
    WAVEFORMATEX* mix = nullptr;
    if (FAILED(wasapi_client->GetMixFormat(&mix)) || !mix) return false;
    std::fprintf(stderr, "wasapi: device mix format %s rate=%lu ch=%u bits=%u\n", format_tag_name(mix->wFormatTag),
                 static_cast<unsigned long>(mix->nSamplesPerSec), unsigned(mix->nChannels), unsigned(mix->wBitsPerSample));
    bool convert = !(mix->nSamplesPerSec == STREAM_RATE && mix->nChannels == STREAM_CHANNELS);
    CoTaskMemFree(mix);
    return convert;
}

void note_underrun() {
    wasapi_underrun_count++;
    if (audio_underrun_reported(wasapi_underrun_count))
        std::fprintf(stderr, "wasapi_thread: underrun #%u (endpoint drained before wake)\n", wasapi_underrun_count);
}

// Fills all free buffer space from the callback. A buffer error skips the
// rest of this wake-up.
void fill(UINT32 padding) {
    UINT32 free_frames = wasapi_buffer_frames - padding;
    while (free_frames > 0) {
        BYTE* data = nullptr;
        HRESULT hr = wasapi_render->GetBuffer(free_frames, &data);
        if (FAILED(hr)) {
            std::fprintf(stderr, "wasapi_thread: GetBuffer(%u) hr=0x%08lx\n", free_frames, static_cast<unsigned long>(hr));
            return;
        }
        float* out = reinterpret_cast<float*>(data);
        std::memset(out, 0, size_t(free_frames) * wasapi_channels * sizeof(float));
        wasapi_callback(wasapi_userdata, out, free_frames);
        hr = wasapi_render->ReleaseBuffer(free_frames, 0);
        if (FAILED(hr)) {
            std::fprintf(stderr, "wasapi_thread: ReleaseBuffer(%u) hr=0x%08lx\n", free_frames, static_cast<unsigned long>(hr));
            return;
        }
        if (failed(wasapi_client->GetCurrentPadding(&padding), "wasapi_thread: GetCurrentPadding hr=0x%08lx\n")) return;
        free_frames = wasapi_buffer_frames - padding;
    }
}

DWORD WINAPI wasapi_thread_proc(LPVOID) {
    audio_flush_denormals();
    DWORD task = 0;
    HANDLE mmcss = AvSetMmThreadCharacteristicsW(L"Pro Audio", &task);
    if (mmcss) std::fprintf(stderr, "wasapi: audio thread MMCSS task=%lu (Pro Audio)\n", static_cast<unsigned long>(task));
    else std::fprintf(stderr, "wasapi: AvSetMmThreadCharacteristics(Pro Audio) failed err=%lu\n", GetLastError());

    while (wasapi_running.load() == 1) {
        DWORD r = WaitForSingleObject(wasapi_event, WAIT_TIMEOUT_MS);
        if (wasapi_running.load() != 1) break;
        if (r != WAIT_OBJECT_0 && r != WAIT_TIMEOUT) {
            std::fprintf(stderr, "wasapi_thread: WaitForSingleObject ret=%lu err=%lu\n", static_cast<unsigned long>(r),
                         GetLastError());
            break;
        }
        UINT32 padding = 0;
        if (failed(wasapi_client->GetCurrentPadding(&padding), "wasapi_thread: GetCurrentPadding hr=0x%08lx\n")) break;
        if (padding == 0) note_underrun();
        fill(padding);
    }
    if (mmcss) AvRevertMmThreadCharacteristics(mmcss);
    return 0;
}

template <typename T>
void release(T*& p) {
    if (p) p->Release();
    p = nullptr;
}

// Steps 4 to 10 of the open; false after printing the failing call.
bool open_stream() {
    if (failed(CoCreateInstance(MMDEVICE_ENUMERATOR_CLSID, nullptr, CLSCTX_ALL, MMDEVICE_ENUMERATOR_IID,
                                reinterpret_cast<void**>(&wasapi_enum)),
               "wasapi_open: CoCreateInstance(MMDeviceEnumerator) hr=0x%08lx\n") ||
        failed(wasapi_enum->GetDefaultAudioEndpoint(eRender, eConsole, &wasapi_device),
               "wasapi_open: GetDefaultAudioEndpoint hr=0x%08lx\n") ||
        failed(wasapi_device->Activate(AUDIO_CLIENT_IID, CLSCTX_ALL, nullptr, reinterpret_cast<void**>(&wasapi_client)),
               "wasapi_open: Activate(IAudioClient) hr=0x%08lx\n"))
        return false;
    return true;
}

}  // namespace

int audio_open(uint32_t latency_us, AudioCallback callback, void* context) {
    if (wasapi_thread || wasapi_client) {
        std::fprintf(stderr, "wasapi_open: output already open\n");
        return -1;
    }
    wasapi_callback = callback;
    wasapi_userdata = context;
    wasapi_channels = STREAM_CHANNELS;
    wasapi_underrun_count = 0;

    if (timeBeginPeriod(TIMER_PERIOD_MS) == TIMERR_NOERROR) wasapi_timer_period_set = 1;
    else std::fprintf(stderr, "wasapi_open: timeBeginPeriod(1) failed\n");
    wasapi_com_inited = SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) ? 1 : 0;

    REFERENCE_TIME period = 0;
    if (!open_stream() || failed(wasapi_client->GetDevicePeriod(&period, nullptr), "wasapi_open: GetDevicePeriod hr=0x%08lx\n")) {
        audio_close();
        return -1;
    }
    bool convert = report_mix_format();

    WAVEFORMATEX format{};
    format.wFormatTag = FORMAT_IEEE_FLOAT;
    format.nChannels = STREAM_CHANNELS;
    format.nSamplesPerSec = STREAM_RATE;
    format.wBitsPerSample = STREAM_BITS;
    format.nBlockAlign = STREAM_CHANNELS * STREAM_BITS / 8;
    format.nAvgBytesPerSec = STREAM_RATE * format.nBlockAlign;
    REFERENCE_TIME duration = REFERENCE_TIME(latency_us) * 10;
    if (duration < period) duration = period;

    BYTE* data = nullptr;
    bool ok = !failed(wasapi_client->Initialize(AUDCLNT_SHAREMODE_SHARED, STREAM_FLAGS, duration, 0, &format, nullptr),
                      "wasapi_open: IAudioClient_Initialize hr=0x%08lx\n");
    if (ok) {
        wasapi_event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        if (!wasapi_event) std::fprintf(stderr, "wasapi_open: CreateEvent failed err=%lu\n", GetLastError());
        ok = wasapi_event != nullptr;
    }
    ok = ok && !failed(wasapi_client->SetEventHandle(wasapi_event), "wasapi_open: SetEventHandle hr=0x%08lx\n") &&
         !failed(wasapi_client->GetBufferSize(&wasapi_buffer_frames), "wasapi_open: GetBufferSize hr=0x%08lx\n") &&
         !failed(wasapi_client->GetService(AUDIO_RENDER_CLIENT_IID, reinterpret_cast<void**>(&wasapi_render)),
                 "wasapi_open: GetService(IAudioRenderClient) hr=0x%08lx\n");
    // The stream starts with one buffer of silence.
    ok = ok && !failed(wasapi_render->GetBuffer(wasapi_buffer_frames, &data), "wasapi_open: GetBuffer prefill hr=0x%08lx\n");
    if (ok) std::memset(data, 0, size_t(wasapi_buffer_frames) * format.nBlockAlign);
    ok = ok && !failed(wasapi_render->ReleaseBuffer(wasapi_buffer_frames, 0), "wasapi_open: ReleaseBuffer prefill hr=0x%08lx\n") &&
         !failed(wasapi_client->Start(), "wasapi_open: IAudioClient_Start hr=0x%08lx\n");
    if (!ok) {
        audio_close();
        return -1;
    }
    wasapi_started = 1;
    std::fprintf(stderr, "wasapi: %d Hz f32 stereo, buffer %u frames (%.2f ms), device period %u frames (%.2f ms), SRC %s\n",
                 int(STREAM_RATE), wasapi_buffer_frames, wasapi_buffer_frames * 1000.0 / STREAM_RATE, unsigned(period * STREAM_RATE / 10000000),
                 period * 1000.0 / HNS_PER_SECOND, convert ? "ENGAGED" : "bypassed");

    wasapi_running.exchange(1);
    wasapi_thread = CreateThread(nullptr, 0, wasapi_thread_proc, nullptr, 0, nullptr);
    if (!wasapi_thread) {
        std::fprintf(stderr, "wasapi_open: CreateThread failed err=%lu\n", GetLastError());
        wasapi_running.store(0);
        audio_close();
        return -1;
    }
    return 0;
}

void audio_close() {
    if (wasapi_thread) {
        wasapi_running.store(0);
        SetEvent(wasapi_event);  // wake the thread now rather than at its time-out
        WaitForSingleObject(wasapi_thread, INFINITE);
        CloseHandle(wasapi_thread);
        wasapi_thread = nullptr;
    }
    if (wasapi_started) {
        wasapi_client->Stop();
        wasapi_client->Reset();
        wasapi_started = 0;
    }
    release(wasapi_render);
    release(wasapi_client);
    release(wasapi_device);
    release(wasapi_enum);
    if (wasapi_event) CloseHandle(wasapi_event);
    wasapi_event = nullptr;
    if (wasapi_com_inited) CoUninitialize();
    wasapi_com_inited = 0;
    if (wasapi_timer_period_set) timeEndPeriod(TIMER_PERIOD_MS);
    wasapi_timer_period_set = 0;
}
