// Plumbing floor for the end-to-end benchmark: an alsa-lib rate converter
// that does no filtering at all. It copies as many frames as both sides have
// and fills the rest with silence, so a run through it costs what alsa-lib's
// rate plug-in, the null slave and the harness cost on their own. Built only
// for the benchmark, as libasound_module_rate_benchcopy.so.
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

struct CopyState {
    unsigned int in_rate;
    unsigned int out_rate;
    unsigned int channels;
};

// n * num / den rounded to nearest; 0 for a zero denominator.
snd_pcm_uframes_t scale(snd_pcm_uframes_t n, unsigned int num, unsigned int den) {
    if (den == 0) return 0;
    return static_cast<snd_pcm_uframes_t>((static_cast<uint64_t>(n) * num + den / 2) / den);
}

void copy_close(void *obj) { std::free(obj); }

int copy_init(void *obj, snd_pcm_rate_info_t *info) {
    if (info->in.format != SND_PCM_FORMAT_S16_LE || info->out.format != SND_PCM_FORMAT_S16_LE) return -EINVAL;
    auto *s = static_cast<CopyState *>(obj);
    s->in_rate = info->in.rate;
    s->out_rate = info->out.rate;
    s->channels = info->channels;
    return 0;
}

void copy_free(void *) {}
void copy_reset(void *) {}

void copy_convert_s16(void *obj, int16_t *dst, unsigned int dst_frames, const int16_t *src,
                      unsigned int src_frames) {
    const auto *s = static_cast<const CopyState *>(obj);
    const unsigned int frames = dst_frames < src_frames ? dst_frames : src_frames;
    const size_t frame_bytes = sizeof(int16_t) * s->channels;
    std::memcpy(dst, src, frames * frame_bytes);
    std::memset(dst + static_cast<size_t>(frames) * s->channels, 0, (dst_frames - frames) * frame_bytes);
}

snd_pcm_uframes_t copy_input_frames(void *obj, snd_pcm_uframes_t frames) {
    const auto *s = static_cast<const CopyState *>(obj);
    return scale(frames, s->in_rate, s->out_rate);
}

snd_pcm_uframes_t copy_output_frames(void *obj, snd_pcm_uframes_t frames) {
    const auto *s = static_cast<const CopyState *>(obj);
    return scale(frames, s->out_rate, s->in_rate);
}

void copy_dump(void *, snd_output_t *out) { snd_output_printf(out, "Bench copy converter (plumbing floor)\n"); }

const snd_pcm_rate_ops_t copy_ops = {
    .close = copy_close,
    .init = copy_init,
    .free = copy_free,
    .reset = copy_reset,
    .adjust_pitch = nullptr,
    .convert = nullptr,
    .convert_s16 = copy_convert_s16,
    .input_frames = copy_input_frames,
    .output_frames = copy_output_frames,
    .version = 0x010002,
    .get_supported_rates = nullptr,
    .dump = copy_dump,
    .get_supported_formats = nullptr,
};

}  // namespace

// The table layout up to `dump` is the 0x010002 one that every host since
// alsa-lib 1.0.x understands; older hosts get the 0x010001 prefix only.
extern "C" __attribute__((visibility("default"))) int _snd_pcm_rate_benchcopy_open(unsigned int version, void **objp,
                                                                                snd_pcm_rate_ops_t *ops) {
    auto *s = static_cast<CopyState *>(std::calloc(1, sizeof(CopyState)));
    if (s == nullptr) return -ENOMEM;
    *objp = s;
    std::memcpy(ops, &copy_ops, version == 0x010001 ? offsetof(snd_pcm_rate_ops_t, version)
                                                     : offsetof(snd_pcm_rate_ops_t, get_supported_formats));
    return 0;
}
