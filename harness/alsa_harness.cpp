#include "harness/alsa_harness.hpp"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace rsmpl_harness {

namespace fs = std::filesystem;

bool use_plugin_dir(const std::string &dir) { return setenv("ALSA_PLUGIN_DIR", dir.c_str(), 1) == 0; }

std::vector<std::string> link_plugin_dir(const std::string &dir, const std::string &system_dir,
                                         const std::vector<std::pair<std::string, std::string>> &ours) {
    std::vector<std::string> made;
    std::error_code ec;
    fs::create_directories(dir, ec);
    auto link = [&](const fs::path &target, const std::string &name) {
        const fs::path at = fs::path(dir) / name;
        fs::remove(at, ec);
        fs::create_symlink(target, at, ec);
        if (!ec) made.push_back(at.string());
    };
    for (const auto &e : fs::directory_iterator(system_dir, ec))
        if (e.path().extension() == ".so") link(e.path(), e.path().filename().string());
    for (const auto &[name, target] : ours) link(fs::absolute(target), name);
    return made;
}

void release_global_config() { snd_config_update_free_global(); }

std::string rate_config(const std::string &name, const std::string &converter, unsigned out_rate, int fd) {
    const std::string slave =
        fd < 0 ? "{ type null }" : "{ type file slave.pcm { type null } file " + std::to_string(fd) + " format raw }";
    return "pcm." + name + " { type rate converter \"" + converter + "\" slave { pcm " + slave + " rate " +
           std::to_string(out_rate) + " format S16_LE } }\n";
}

int Pcm::open(const std::string &config, const char *name) {
    close();
    step_ = "config";
    snd_input_t *input = nullptr;
    int err = snd_config_top(&conf_);
    if (err >= 0) err = snd_input_buffer_open(&input, config.data(), static_cast<ssize_t>(config.size()));
    if (err >= 0) {
        err = snd_config_load(conf_, input);
        snd_input_close(input);
    }
    if (err >= 0) step_ = "open", err = snd_pcm_open_lconf(&pcm_, name, SND_PCM_STREAM_PLAYBACK, 0, conf_);
    if (err < 0) {
        pcm_ = nullptr;
        close();
    }
    return err;
}

namespace {

int set_length(snd_pcm_t *pcm, snd_pcm_hw_params_t *hw, Length l, bool period) {
    if (l.frames != 0) {
        if (period)
            return l.exact ? snd_pcm_hw_params_set_period_size(pcm, hw, l.frames, 0)
                           : snd_pcm_hw_params_set_period_size_near(pcm, hw, &l.frames, nullptr);
        return l.exact ? snd_pcm_hw_params_set_buffer_size(pcm, hw, l.frames)
                       : snd_pcm_hw_params_set_buffer_size_near(pcm, hw, &l.frames);
    }
    if (period)
        return l.exact ? snd_pcm_hw_params_set_period_time(pcm, hw, l.us, 0)
                       : snd_pcm_hw_params_set_period_time_near(pcm, hw, &l.us, nullptr);
    return l.exact ? snd_pcm_hw_params_set_buffer_time(pcm, hw, l.us, 0)
                   : snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &l.us, nullptr);
}

}  // namespace

int Pcm::configure(const HwSetup &s) {
    snd_pcm_hw_params_t *hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    step_ = "access";
    int err = snd_pcm_hw_params_any(pcm_, hw);
    if (err >= 0) err = snd_pcm_hw_params_set_access(pcm_, hw, SND_PCM_ACCESS_RW_INTERLEAVED);
    if (err >= 0) step_ = "format", err = snd_pcm_hw_params_set_format(pcm_, hw, s.format);
    if (err >= 0) step_ = "channels", err = snd_pcm_hw_params_set_channels(pcm_, hw, s.channels);
    if (err >= 0) step_ = "rate", err = snd_pcm_hw_params_set_rate(pcm_, hw, s.rate, 0);
    if (err >= 0) step_ = "period", err = set_length(pcm_, hw, s.period, true);
    if (err >= 0) step_ = "buffer", err = set_length(pcm_, hw, s.buffer, false);
    if (err >= 0) step_ = "hw_params", err = snd_pcm_hw_params(pcm_, hw);
    if (err >= 0) err = snd_pcm_hw_params_get_period_size(hw, &period_size_, nullptr);
    return err;
}

void Pcm::close() {
    if (pcm_ != nullptr) snd_pcm_close(pcm_);
    if (conf_ != nullptr) snd_config_delete(conf_);
    pcm_ = nullptr;
    conf_ = nullptr;
}

namespace {

template <typename Write>
std::string captured(Write write) {
    snd_output_t *out = nullptr;
    if (snd_output_buffer_open(&out) < 0) return {};
    write(out);
    char *text = nullptr;
    const size_t n = snd_output_buffer_string(out, &text);
    std::string s(text != nullptr ? text : "", text != nullptr ? n : 0);
    snd_output_close(out);
    return s;
}

}  // namespace

std::string dump(snd_pcm_t *pcm) {
    return captured([&](snd_output_t *out) { snd_pcm_dump(pcm, out); });
}

std::string dump(const snd_pcm_rate_ops_t &ops, void *obj) {
    return captured([&](snd_output_t *out) { ops.dump(obj, out); });
}

std::string converter_line(const std::string &dump) {
    std::string result;
    size_t pos = dump.find("Rate conversion PCM");
    if (pos == std::string::npos) return {};
    pos = dump.find('\n', pos);
    while (pos != std::string::npos && pos + 1 < dump.size()) {
        const size_t end = dump.find('\n', pos + 1);
        const std::string line = dump.substr(pos + 1, end == std::string::npos ? std::string::npos : end - pos - 1);
        if (line.rfind("Protocol version", 0) == 0 || line.rfind("Its setup is", 0) == 0) break;
        if (!result.empty()) result += "; ";
        result += line;
        pos = end;
    }
    return result;
}

std::string line_with(const std::string &dump, const std::string &marker) {
    const size_t at = dump.find(marker);
    if (at == std::string::npos) return {};
    const size_t bol = dump.rfind('\n', at);
    const size_t start = bol == std::string::npos ? 0 : bol + 1;
    const size_t eol = dump.find('\n', at);
    std::string line = dump.substr(start, eol == std::string::npos ? std::string::npos : eol - start);
    line.erase(0, line.find_first_not_of(' '));
    return line;
}

std::vector<snd_pcm_uframes_t> period_sizes(const std::string &dump) {
    std::vector<snd_pcm_uframes_t> sizes;
    for (size_t pos = 0; (pos = dump.find("period_size", pos)) != std::string::npos; ++pos)
        sizes.push_back(std::strtoul(dump.c_str() + dump.find(':', pos) + 1, nullptr, 10));
    return sizes;
}

Module::Module(const char *path) {
    handle_ = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char *e = dlerror();
        error_ = e != nullptr ? e : "dlopen failed";
    }
}

Module::~Module() {
    if (handle_ != nullptr) dlclose(handle_);
}

snd_pcm_rate_open_func_t Module::entry(const std::string &name) {
    if (handle_ == nullptr) return nullptr;
    const std::string symbol = "_snd_pcm_rate_" + name + "_open";
    auto fn = reinterpret_cast<snd_pcm_rate_open_func_t>(dlsym(handle_, symbol.c_str()));
    if (fn == nullptr) error_ = "module has no " + symbol;
    return fn;
}

Converter::Converter(snd_pcm_rate_open_func_t entry, unsigned version) {
    if (entry != nullptr) status_ = entry(version, &obj_, &ops_);
}

Converter::~Converter() {
    if (status_ != 0 || obj_ == nullptr) return;
    if (ops_.free != nullptr) ops_.free(obj_);
    if (ops_.close != nullptr) ops_.close(obj_);
}

}  // namespace rsmpl_harness
