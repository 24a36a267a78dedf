// Everything that drives alsa-lib or the module by hand, for the tools,
// benchmarks, tests and fuzz targets: a rate PCM opened from a configuration
// string, its dump, the plug-in directory alsa-lib searches, and the module's
// entry and operations table called as alsa-lib's rate PCM calls them.
#pragma once

#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>

#include <string>
#include <utility>
#include <vector>

namespace rsmpl_harness {

// ---- Where alsa-lib finds converters ----------------------------------------

// The module as built, and build/alsa-lib: the module under both converter
// names beside links to the system's other converters.
const char *built_module();
const char *staged_plugin_dir();

// alsa-lib reads ALSA_PLUGIN_DIR when it first looks for a converter, and the
// variable replaces its own directory: call these before any snd_* call.
bool use_plugin_dir(const std::string &dir);
inline bool use_staged_plugin_dir() { return use_plugin_dir(staged_plugin_dir()); }

// Links every .so of `system_dir`, then each (file name, target) of `ours`,
// into `dir`, ours replacing a system file of the same name. Returns the
// links made.
std::vector<std::string> link_plugin_dir(const std::string &dir, const std::string &system_dir,
                                         const std::vector<std::pair<std::string, std::string>> &ours);

// alsa-lib keeps its global configuration until told: releasing it at exit
// leaves leak checkers only what the module and the caller allocate.
void release_global_config();

// ---- A rate PCM from a configuration string ---------------------------------

// PCM `name`: a rate PCM with `converter` whose slave runs at `out_rate` in
// S16_LE, into a file PCM writing raw samples to `fd` in front of the null
// PCM, or straight into the null PCM when fd < 0.
std::string rate_config(const std::string &name, const std::string &converter, unsigned out_rate, int fd = -1);

// A period or buffer length, in frames or in microseconds; alsa-lib may pick
// the nearest it supports unless `exact`.
struct Length {
    snd_pcm_uframes_t frames = 0;
    unsigned us = 0;
    bool exact = false;
    static Length in_frames(snd_pcm_uframes_t f, bool exact = false) { return {f, 0, exact}; }
    static Length in_us(unsigned us, bool exact = false) { return {0, us, exact}; }
};

struct HwSetup {
    snd_pcm_format_t format = SND_PCM_FORMAT_S16_LE;
    unsigned channels = 1;
    unsigned rate = 48000;
    Length period = Length::in_us(20000);
    Length buffer = Length::in_us(80000);
};

// A playback PCM and the configuration it was opened from; closing releases both.
class Pcm {
public:
    Pcm() = default;
    ~Pcm() { close(); }
    Pcm(const Pcm &) = delete;
    Pcm &operator=(const Pcm &) = delete;

    // Loads `config` and opens PCM `name` from it; alsa-lib's error code, and
    // step() is "config" if the text did not load, "open" if the PCM did not open.
    int open(const std::string &config, const char *name);
    // Interleaved access and the set-up given; on failure step() names the
    // call alsa-lib refused ("access", "format", "channels", "rate",
    // "period", "buffer" or "hw_params").
    int configure(const HwSetup &setup);
    int hw_free() { return snd_pcm_hw_free(pcm_); }
    void close();

    snd_pcm_t *get() const { return pcm_; }
    const char *step() const { return step_; }
    // Period size the client side got, as hw_params reported it.
    snd_pcm_uframes_t period_size() const { return period_size_; }

private:
    snd_config_t *conf_ = nullptr;
    snd_pcm_t *pcm_ = nullptr;
    const char *step_ = "";
    snd_pcm_uframes_t period_size_ = 0;
};

// ---- The dump ---------------------------------------------------------------

std::string dump(snd_pcm_t *pcm);
std::string dump(const snd_pcm_rate_ops_t &ops, void *obj);

// The converter's own lines of a rate PCM's dump, joined by "; ": between the
// PCM's title and the protocol version or its setup. Empty if not a rate PCM.
std::string converter_line(const std::string &dump);

// The line holding `marker`, without its indentation; empty if none does.
// alsa-lib falls back to another converter quietly: this shows which ran.
std::string line_with(const std::string &dump, const std::string &marker);

// Every period_size of a dump in order: the rate PCM's own, then its slave's.
std::vector<snd_pcm_uframes_t> period_sizes(const std::string &dump);

// ---- The module as alsa-lib loads it ----------------------------------------

// dlopen with alsa-lib's flags; closed with the object.
class Module {
public:
    explicit Module(const char *path = built_module());
    ~Module();
    Module(const Module &) = delete;
    Module &operator=(const Module &) = delete;

    bool ok() const { return handle_ != nullptr; }
    const std::string &error() const { return error_; }
    // The entry alsa-lib looks up for converter `name`: _snd_pcm_rate_NAME_open.
    snd_pcm_rate_open_func_t entry(const std::string &name);

private:
    void *handle_ = nullptr;
    std::string error_;
};

// One converter object from an entry, as the rate PCM opens it; released as
// the rate PCM's close releases it (free, then close).
class Converter {
public:
    Converter(snd_pcm_rate_open_func_t entry, unsigned version = SND_PCM_RATE_PLUGIN_VERSION);
    ~Converter();
    Converter(const Converter &) = delete;
    Converter &operator=(const Converter &) = delete;

    // What the entry returned; the table is usable only when this is 0.
    int status() const { return status_; }
    void *obj() const { return obj_; }
    snd_pcm_rate_ops_t &ops() { return ops_; }

private:
    int status_ = -1;
    void *obj_ = nullptr;
    snd_pcm_rate_ops_t ops_{};
};

}  // namespace rsmpl_harness
