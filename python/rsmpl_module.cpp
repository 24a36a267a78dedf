// Python module rsmpl: device-exact conversion through this module's
// converters, the raw RSMPL stages and the array-friendly UTIL functions.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>
#include <dlfcn.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <rsmpl/rsmpl.h>
#include <rsmpl/rsmpl_util.h>

namespace py = pybind11;

namespace {

// ---- sample formats ---------------------------------------------------------

enum class Kind { I16, F32, F64 };

Kind kind_of(const py::array &x, const char *what)
{
	if (x.dtype().is(py::dtype::of<int16_t>()))
		return Kind::I16;
	if (x.dtype().is(py::dtype::of<float>()))
		return Kind::F32;
	if (x.dtype().is(py::dtype::of<double>()))
		return Kind::F64;
	throw py::type_error(std::string(what) + " must have dtype int16, float32 or float64, not " +
			     std::string(py::str(x.dtype())));
}

py::array as_ndarray(const py::handle &h, const char *what)
{
	if (!py::isinstance<py::array>(h))
		throw py::type_error(std::string(what) + " must be a numpy.ndarray, not " +
				     std::string(py::str(h.get_type().attr("__name__"))));
	return py::reinterpret_borrow<py::array>(h);
}

// Same rounding as numpy.rint (nearest, ties to even); full scale saturates.
template <typename F> bool float_to_s16(const F *in, int16_t *out, size_t n)
{
	for (size_t i = 0; i < n; i++) {
		const double v = static_cast<double>(in[i]);
		if (!std::isfinite(v))
			return false;
		double r = std::nearbyint(v * 32768.0);
		r = r < -32768.0 ? -32768.0 : (r > 32767.0 ? 32767.0 : r);
		out[i] = static_cast<int16_t>(r);
	}
	return true;
}

// Reads n samples of x into out; false when a float sample is NaN or infinite.
bool read_s16(Kind k, const void *x, int16_t *out, size_t n)
{
	switch (k) {
	case Kind::I16:
		if (n)
			std::memcpy(out, x, n * sizeof(int16_t));
		return true;
	case Kind::F32:
		return float_to_s16(static_cast<const float *>(x), out, n);
	case Kind::F64:
		return float_to_s16(static_cast<const double *>(x), out, n);
	}
	return false;
}

py::array make_array(Kind k, const std::vector<py::ssize_t> &shape)
{
	switch (k) {
	case Kind::I16:
		return py::array_t<int16_t>(shape);
	case Kind::F32:
		return py::array_t<float>(shape);
	default:
		return py::array_t<double>(shape);
	}
}

void write_s16(Kind k, const int16_t *in, void *out, size_t n)
{
	switch (k) {
	case Kind::I16:
		if (n)
			std::memcpy(out, in, n * sizeof(int16_t));
		break;
	case Kind::F32:
		for (size_t i = 0; i < n; i++)
			static_cast<float *>(out)[i] = static_cast<float>(in[i]) / 32768.0f;
		break;
	case Kind::F64:
		for (size_t i = 0; i < n; i++)
			static_cast<double *>(out)[i] = static_cast<double>(in[i]) / 32768.0;
		break;
	}
}

struct Audio {
	py::array arr;
	Kind kind;
	size_t frames;
	size_t channels;
	bool two_d;
};

Audio check_audio(const py::handle &h, bool allow_empty, const char *what = "x")
{
	py::array a = as_ndarray(h, what);
	Kind k = kind_of(a, what);
	if (a.ndim() != 1 && a.ndim() != 2)
		throw py::value_error(std::string(what) + " must be 1-D (frames) or 2-D (frames, channels), not " +
				      std::to_string(a.ndim()) + "-D");
	size_t frames = static_cast<size_t>(a.shape(0));
	size_t ch = a.ndim() == 2 ? static_cast<size_t>(a.shape(1)) : 1;
	if (a.ndim() == 2 && ch == 0)
		throw py::value_error(std::string(what) + " has no channels (shape (n, 0))");
	if (!allow_empty && frames == 0)
		throw py::value_error(std::string(what) + " is empty");
	if (!(a.flags() & py::array::c_style))
		throw py::value_error(std::string(what) +
				      " must be C-contiguous (use numpy.ascontiguousarray(x))");
	return {a, k, frames, ch, a.ndim() == 2};
}

// ---- converter entries --------------------------------------------------------

using open_fn = int (*)(unsigned int, void **, snd_pcm_rate_ops_t *);

void *self_handle()
{
	static void *handle = [] {
		Dl_info info{};
		if (!dladdr(reinterpret_cast<void *>(&self_handle), &info) || !info.dli_fname)
			return static_cast<void *>(nullptr);
		return dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
	}();
	return handle;
}

// Every converter compiled into this module is found by alsa-lib's own naming rule.
open_fn find_entry(const std::string &name)
{
	bool ok = !name.empty() && name.size() < 64;
	for (char c : name)
		ok = ok && ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_');
	void *sym = nullptr;
	if (ok && self_handle()) {
		sym = dlsym(self_handle(), ("_snd_pcm_rate_" + name + "_open").c_str());
		// Only this module's own entries: not one of a library it happens to load.
		Dl_info mine{}, found{};
		if (sym && (!dladdr(sym, &found) || !dladdr(reinterpret_cast<void *>(&self_handle), &mine) ||
			    std::strcmp(found.dli_fname, mine.dli_fname) != 0))
			sym = nullptr;
	}
	if (!sym)
		throw py::value_error("unknown converter '" + name + "': this module has no entry _snd_pcm_rate_" +
				      name + "_open");
	return reinterpret_cast<open_fn>(sym);
}

struct ConverterError {
	std::string message;
};

// One converter instance, opened and set up in the order alsa-lib uses.
class Instance {
public:
	Instance(open_fn entry, const std::string &name, snd_pcm_rate_info_t info) : info_(info)
	{
		std::memset(&ops_, 0, sizeof(ops_));
		try {
			set_up(entry, name);
		} catch (...) {
			release();
			throw;
		}
	}
	Instance(const Instance &) = delete;
	Instance &operator=(const Instance &) = delete;
	~Instance() { release(); }
	void convert(int16_t *dst, const int16_t *src)
	{
		ops_.convert_s16(obj_, dst, static_cast<unsigned int>(info_.out.period_size), src,
				 static_cast<unsigned int>(info_.in.period_size));
	}

private:
	void set_up(open_fn entry, const std::string &name)
	{
		const snd_pcm_rate_info_t &info = info_;
		int err = entry(SND_PCM_RATE_PLUGIN_VERSION, &obj_, &ops_);
		if (err < 0 || !obj_ || !ops_.init || !ops_.convert_s16)
			throw ConverterError{"converter " + name + " could not be opened (error " + std::to_string(err) + ")"};
		// Like alsa-lib's hw_free, free follows even a failed init: it may have allocated.
		init_called_ = true;
		err = ops_.init(obj_, &info_);
		if (err < 0)
			throw ConverterError{"converter " + name + " refused " + std::to_string(info.in.rate) + " -> " +
					     std::to_string(info.out.rate) + " Hz with " + std::to_string(info.channels) +
					     " channel(s) (error " + std::to_string(err) + ")"};
		if (ops_.adjust_pitch) {
			err = ops_.adjust_pitch(obj_, &info_);
			if (err < 0)
				throw ConverterError{"converter " + name + " refused periods of " +
						     std::to_string(info.in.period_size) + " -> " +
						     std::to_string(info.out.period_size) + " frames (error " +
						     std::to_string(err) + ")"};
		}
		if (ops_.reset)
			ops_.reset(obj_);
	}

	// alsa-lib's order: free after an init, close last.
	void release()
	{
		if (init_called_ && ops_.free)
			ops_.free(obj_);
		if (obj_ && ops_.close)
			ops_.close(obj_);
		init_called_ = false;
		obj_ = nullptr;
	}

	void *obj_ = nullptr;
	snd_pcm_rate_ops_t ops_;
	snd_pcm_rate_info_t info_;
	bool init_called_ = false;
};

constexpr uint64_t kMaxRate = 1000000;

// Python and numpy integers alike (anything with __index__), but not bool.
py::int_ as_integer(const py::handle &h, const std::string &what)
{
	if (PyBool_Check(h.ptr()) || py::isinstance<py::float_>(h))
		throw py::type_error(what + " must be integers, not " + std::string(py::str(h.get_type().attr("__name__"))));
	PyObject *i = PyNumber_Index(h.ptr());
	if (!i) {
		PyErr_Clear();
		throw py::type_error(what + " must be integers, not " + std::string(py::str(h.get_type().attr("__name__"))));
	}
	return py::reinterpret_steal<py::int_>(i);
}

long long clamp_ll(const py::int_ &i)
{
	const int sign = PyObject_RichCompareBool(i.ptr(), py::int_(0).ptr(), Py_LT) ? -1 : 1;
	try {
		return i.cast<long long>();
	} catch (const py::cast_error &) {
		return sign < 0 ? LLONG_MIN : LLONG_MAX;
	}
}

void check_rates(const py::handle &in_h, const py::handle &out_h)
{
	const long long in = clamp_ll(as_integer(in_h, "rates")), out = clamp_ll(as_integer(out_h, "rates"));
	if (in <= 0 || out <= 0 || static_cast<uint64_t>(in) > kMaxRate || static_cast<uint64_t>(out) > kMaxRate)
		throw py::value_error("rates must lie in 1.." + std::to_string(kMaxRate) + " Hz, got " +
				      std::to_string(in) + " -> " + std::to_string(out));
	if (static_cast<uint64_t>(out) * 8 < static_cast<uint64_t>(in) ||
	    static_cast<uint64_t>(in) * 8 < static_cast<uint64_t>(out))
		throw py::value_error("the ratio " + std::to_string(out) + "/" + std::to_string(in) +
				      " lies outside 1/8..8");
}

// A stream through one converter: whole periods in the exact ratio of the
// rates, channels in groups the converter accepts, output shifted by the
// converter's delay and cut to round(n * out / in) frames at the end.
class Stream {
public:
	Stream(const std::string &name, uint32_t in_rate, uint32_t out_rate, size_t channels, int64_t delay)
	    : name_(name), in_(in_rate), out_(out_rate), channels_(channels), delay_(delay)
	{
		entry_ = find_entry(name);
		const uint64_t g = std::gcd<uint64_t, uint64_t>(in_rate, out_rate);
		const uint64_t r = in_rate / g, s = out_rate / g;
		// About 20 ms, a multiple of 12 input frames (every FIR down-stage's
		// block rule) and at least 48.
		const uint64_t unit = 12 / std::gcd<uint64_t, uint64_t>(r, 12);
		uint64_t k = static_cast<uint64_t>(std::llround(static_cast<double>(g) / 50.0));
		k = std::max<uint64_t>(unit, (k + unit - 1) / unit * unit);
		while (r * k < 48)
			k += unit;
		p_in_ = r * k;
		p_out_ = s * k;
		// Nearly coprime rates need periods of seconds; beyond this no device runs them.
		if (std::max(p_in_, p_out_) * channels_ > (uint64_t(1) << 24))
			throw py::value_error("rates " + std::to_string(in_rate) + " -> " + std::to_string(out_rate) +
					      " need periods of " + std::to_string(p_in_) + " -> " + std::to_string(p_out_) +
					      " frames, too long for " + std::to_string(channels) + " channel(s)");
		open_all();
	}

	std::pair<uint64_t, uint64_t> periods() const { return {p_in_, p_out_}; }
	size_t channels() const { return channels_; }

	void restart()
	{
		groups_.clear();
		open_all();
		pending_.clear();
		in_total_ = 0;
		emitted_ = 0;
		started_ = false;
		ended_ = false;
	}

	bool ended() const { return ended_; }

	// Appends `frames` frames (already int16, interleaved) and returns the
	// output they complete; with last, the rest of the stream.
	void feed(const int16_t *x, size_t frames, bool last, std::vector<int16_t> &out)
	{
		out.clear();
		if (!started_) {
			started_ = true;
			if (delay_ < 0)
				out.assign(static_cast<size_t>(-delay_) * channels_, 0);
			skip_ = delay_ > 0 ? static_cast<uint64_t>(delay_) : 0;
			emitted_ = delay_ < 0 ? static_cast<uint64_t>(-delay_) : 0;
		}
		pending_.insert(pending_.end(), x, x + frames * channels_);
		in_total_ += frames;
		size_t pos = 0;
		const size_t period = p_in_ * channels_;
		while (pending_.size() - pos >= period) {
			run_period(pending_.data() + pos, out);
			pos += period;
		}
		pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(pos));
		if (!last)
			return;
		const uint64_t target = (2 * in_total_ * out_ + in_) / (2 * uint64_t(in_));
		while (emitted_ < target) {
			pending_.resize(period, 0);
			run_period(pending_.data(), out);
			pending_.clear();
		}
		const uint64_t extra = emitted_ - target;
		out.resize(out.size() - static_cast<size_t>(extra) * channels_);
		emitted_ = target;
		pending_.clear();
		ended_ = true;
	}

private:
	void open_all()
	{
		// The largest groups the converter takes, as many channels in one
		// instance as a device would run.
		size_t first = 0;
		while (first < channels_) {
			size_t n = channels_ - first;
			std::string why;
			for (;;) {
				try {
					groups_.push_back({first, n, std::make_unique<Instance>(entry_, name_, info(n))});
					break;
				} catch (const ConverterError &e) {
					if (why.empty())
						why = e.message;
					if (--n == 0)
						throw py::value_error(why);
				}
			}
			first += n;
		}
	}

	snd_pcm_rate_info_t info(size_t channels) const
	{
		snd_pcm_rate_info_t i;
		std::memset(&i, 0, sizeof(i));
		i.in.format = SND_PCM_FORMAT_S16_LE;
		i.out.format = SND_PCM_FORMAT_S16_LE;
		i.in.rate = in_;
		i.out.rate = out_;
		i.in.period_size = p_in_;
		i.out.period_size = p_out_;
		i.in.buffer_size = 2 * p_in_;
		i.out.buffer_size = 2 * p_out_;
		i.channels = static_cast<unsigned int>(channels);
		return i;
	}

	void run_period(const int16_t *src, std::vector<int16_t> &out)
	{
		result_.assign(p_out_ * channels_, 0);
		for (auto &g : groups_) {
			const int16_t *in = src;
			if (g.count != channels_) {
				gin_.resize(p_in_ * g.count);
				for (size_t f = 0; f < p_in_; f++)
					for (size_t c = 0; c < g.count; c++)
						gin_[f * g.count + c] = src[f * channels_ + g.first + c];
				in = gin_.data();
			}
			// A converter that writes fewer frames than the period leaves
			// silence, like a freshly prepared device buffer.
			gout_.assign(p_out_ * g.count, 0);
			g.inst->convert(gout_.data(), in);
			for (size_t f = 0; f < p_out_; f++)
				for (size_t c = 0; c < g.count; c++)
					result_[f * channels_ + g.first + c] = gout_[f * g.count + c];
		}
		size_t from = 0;
		if (skip_) {
			const uint64_t n = std::min<uint64_t>(skip_, p_out_);
			skip_ -= n;
			from = static_cast<size_t>(n);
		}
		out.insert(out.end(), result_.begin() + static_cast<std::ptrdiff_t>(from * channels_), result_.end());
		emitted_ += p_out_ - from;
	}

	struct Group {
		size_t first, count;
		std::unique_ptr<Instance> inst;
	};

	std::string name_;
	uint32_t in_, out_;
	size_t channels_;
	int64_t delay_;
	open_fn entry_ = nullptr;
	uint64_t p_in_ = 0, p_out_ = 0;
	std::vector<Group> groups_;
	std::vector<int16_t> pending_, result_, gin_, gout_;
	uint64_t in_total_ = 0, emitted_ = 0, skip_ = 0;
	bool started_ = false, ended_ = false;
};

// The converter's delay in output frames, measured once per converter and
// rate pair: clicks at several input phases on a throwaway mono instance,
// the centroid of each response against where the click belongs.
int64_t converter_delay(const std::string &name, uint32_t in_rate, uint32_t out_rate)
{
	static std::mutex lock;
	static std::map<std::tuple<std::string, uint32_t, uint32_t>, int64_t> cache;
	const auto key = std::make_tuple(name, in_rate, out_rate);
	{
		std::lock_guard<std::mutex> guard(lock);
		auto it = cache.find(key);
		if (it != cache.end())
			return it->second;
	}
	Stream raw(name, in_rate, out_rate, 1, 0);
	const double ratio = static_cast<double>(out_rate) / in_rate;
	const size_t clicks = 8, spacing = 1031, start = 2048;
	std::vector<int16_t> x(start * 2 + clicks * spacing, 0), y;
	for (size_t p = 0; p < clicks; p++)
		x[start + p * spacing] = 16384;
	raw.feed(x.data(), x.size(), true, y);
	const double half = spacing * ratio / 2;
	double sum_delay = 0;
	size_t used = 0;
	for (size_t p = 0; p < clicks; p++) {
		const double centre = (start + p * spacing) * ratio;
		const long lo = std::max(0L, static_cast<long>(std::ceil(centre - half)));
		const long hi = std::min(static_cast<long>(y.size()), static_cast<long>(std::floor(centre + half)));
		double m0 = 0, m1 = 0;
		for (long j = lo; j < hi; j++) {
			m0 += y[j];
			m1 += static_cast<double>(j) * y[j];
		}
		if (m0 > 1e-9 * 16384) {
			sum_delay += m1 / m0 - centre;
			used++;
		}
	}
	const int64_t delay = used ? static_cast<int64_t>(std::llround(sum_delay / used)) : 0;
	std::lock_guard<std::mutex> guard(lock);
	cache[key] = delay;
	return delay;
}

// ---- Resampler -----------------------------------------------------------------

class Resampler {
public:
	Resampler(py::object in_rate, py::object out_rate, py::object channels, py::object converter)
	{
		check_rates(in_rate, out_rate);
		const long long ch = clamp_ll(as_integer(channels, "channels"));
		if (ch < 1 || ch > 256)
			throw py::value_error("channels must be 1..256, got " + std::to_string(ch));
		if (!py::isinstance<py::str>(converter))
			throw py::type_error("converter must be a str");
		name_ = converter.cast<std::string>();
		in_ = static_cast<uint32_t>(clamp_ll(as_integer(in_rate, "rates")));
		out_ = static_cast<uint32_t>(clamp_ll(as_integer(out_rate, "rates")));
		find_entry(name_);
		py::gil_scoped_release nogil;
		const int64_t delay = converter_delay(name_, in_, out_);
		stream_ = std::make_unique<Stream>(name_, in_, out_, static_cast<size_t>(ch), delay);
	}

	py::array process(const py::handle &xh, bool last, bool allow_empty)
	{
		Audio a = check_audio(xh, allow_empty);
		if (stream_->channels() > 1 && !a.two_d)
			throw py::value_error("x must be 2-D (frames, channels) for a Resampler of " +
					      std::to_string(stream_->channels()) + " channels");
		if (a.channels != stream_->channels())
			throw py::value_error("x has " + std::to_string(a.channels) + " channel(s), the Resampler expects " +
					      std::to_string(stream_->channels()));
		std::vector<int16_t> out;
		bool bad = false, ended = false;
		{
			py::gil_scoped_release nogil;
			std::lock_guard<std::mutex> guard(lock_);
			ended = stream_->ended();
			if (!ended) {
				std::vector<int16_t> in(a.frames * a.channels);
				bad = !read_s16(a.kind, a.arr.data(), in.data(), in.size());
				if (!bad)
					stream_->feed(in.data(), a.frames, last, out);
			}
		}
		if (ended)
			throw py::value_error("the stream has ended (last=True was given); call reset() to start another");
		if (bad)
			throw py::value_error("x contains NaN or infinity");
		const size_t frames = out.size() / stream_->channels();
		std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(frames)};
		if (a.two_d)
			shape.push_back(static_cast<py::ssize_t>(stream_->channels()));
		py::array y = make_array(a.kind, shape);
		{
			py::gil_scoped_release nogil;
			write_s16(a.kind, out.data(), y.mutable_data(), out.size());
		}
		return y;
	}

	void reset()
	{
		py::gil_scoped_release nogil;
		std::lock_guard<std::mutex> guard(lock_);
		stream_->restart();
	}

	std::string repr() const
	{
		return "rsmpl.Resampler(" + std::to_string(in_) + ", " + std::to_string(out_) + ", channels=" +
		       std::to_string(stream_->channels()) + ", converter='" + name_ + "')";
	}

	uint32_t in_rate() const { return in_; }
	uint32_t out_rate() const { return out_; }
	size_t channels() const { return stream_->channels(); }
	const std::string &converter() const { return name_; }
	int64_t delay() const { return converter_delay(name_, in_, out_); }
	std::pair<uint64_t, uint64_t> periods() const { return stream_->periods(); }

private:
	std::string name_;
	uint32_t in_ = 0, out_ = 0;
	std::unique_ptr<Stream> stream_;
	std::mutex lock_;
};

py::array resample(const py::handle &x, py::object in_rate, py::object out_rate, py::object converter)
{
	Audio a = check_audio(x, false);
	Resampler r(in_rate, out_rate, py::int_(a.channels), converter);
	return r.process(x, true, false);
}

// ---- raw stages ----------------------------------------------------------------

struct StageRule {
	uint32_t index;
	int32_t min, max; // max 0: no bound
	int32_t unit;     // input samples per whole output group
	int32_t num, den; // outputs per input
};

StageRule stage_rule(bool up, const py::handle &factor)
{
	double f;
	if (py::isinstance<py::bool_>(factor) || !(py::isinstance<py::int_>(factor) || py::isinstance<py::float_>(factor)))
		throw py::type_error("factor must be a number: 1.5, 2, 3, 4 or 6");
	f = factor.cast<double>();
	if (up) {
		if (f == 1.5) return {0, 6, 960, 2, 3, 2};
		if (f == 2) return {1, 4, 720, 1, 2, 1};
		if (f == 3) return {2, 6, 480, 1, 3, 1};
		if (f == 4) return {3, 4, 360, 1, 4, 1};
		if (f == 6) return {4, 6, 240, 1, 6, 1};
	} else {
		if (f == 1.5) return {0, 18, 0, 6, 2, 3};
		if (f == 2) return {1, 8, 0, 4, 1, 2};
		if (f == 3) return {2, 18, 0, 6, 1, 3};
		if (f == 4) return {3, 16, 0, 4, 1, 4};
		if (f == 6) return {4, 36, 0, 6, 1, 6};
	}
	throw py::value_error("factor " + std::string(py::str(factor)) + " is no stage: use 1.5, 2, 3, 4 or 6");
}

struct CtxDeleter {
	void operator()(RSMPL_Ctx *c) const { std::free(c); }
};

// Blocks that every stage accepts: the largest allowed, and a short tail
// joined to the block before it.
std::vector<int32_t> stage_blocks(const StageRule &r, size_t n, bool up)
{
	std::vector<int32_t> blocks;
	const int32_t big = up ? r.max : 5760;
	while (n >= static_cast<size_t>(big)) {
		blocks.push_back(big);
		n -= big;
	}
	if (n) {
		if (n >= static_cast<size_t>(r.min) || blocks.empty()) {
			blocks.push_back(static_cast<int32_t>(n));
		} else if (up) {
			blocks.back() = big / 2;
			blocks.push_back(big / 2 + static_cast<int32_t>(n));
		} else {
			blocks.back() += static_cast<int32_t>(n);
		}
	}
	return blocks;
}

py::array run_stage(bool up, const py::handle &xh, const py::handle &factor)
{
	const StageRule r = stage_rule(up, factor);
	Audio a = check_audio(xh, false);
	size_t used = up ? a.frames : a.frames / r.unit * r.unit;
	const char *dir = up ? "up" : "down";
	if (used < static_cast<size_t>(r.min))
		throw py::value_error(std::string(dir) + "(x, " + std::string(py::str(factor)) + ") needs at least " +
				      std::to_string(r.min) + " samples, got " + std::to_string(a.frames));
	const std::vector<int32_t> blocks = stage_blocks(r, used, up);
	size_t out_frames = 0;
	for (int32_t b : blocks)
		out_frames += static_cast<size_t>(b / r.den * r.num);
	std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(out_frames)};
	if (a.two_d)
		shape.push_back(static_cast<py::ssize_t>(a.channels));
	py::array y = make_array(a.kind, shape);
	bool bad = false;
	{
		py::gil_scoped_release nogil;
		const size_t ch = a.channels;
		std::vector<int16_t> all(a.frames * ch), res(out_frames * ch), in, out(1440);
		bad = !read_s16(a.kind, a.arr.data(), all.data(), all.size());
		std::unique_ptr<RSMPL_Ctx, CtxDeleter> ctx(
		    static_cast<RSMPL_Ctx *>(std::aligned_alloc(64, (RSMPL_GetContextSize() + 63) / 64 * 64)));
		if (!ctx)
			throw std::bad_alloc();
		for (size_t c = 0; c < ch && !bad; c++) {
			RSMPL_InitContext(ctx.get());
			size_t at = 0, put = 0;
			for (int32_t b : blocks) {
				in.resize(b);
				for (int32_t i = 0; i < b; i++)
					in[i] = all[(at + i) * ch + c];
				const size_t outs = static_cast<size_t>(b / r.den * r.num);
				// The 3:2 wrapper also uses its output as scratch.
				out.resize(std::max<size_t>(outs, static_cast<size_t>(b) + b / 2) + 1);
				const uint32_t st = up ? RSMPL_Up(ctx.get(), in.data(), out.data(), b, r.index)
						       : RSMPL_Down(ctx.get(), in.data(), out.data(), b, r.index);
				if (st != RSMPL_OK)
					throw std::logic_error("stage refused a block of " + std::to_string(b));
				for (size_t i = 0; i < outs; i++)
					res[(put + i) * ch + c] = out[i];
				at += b;
				put += outs;
			}
		}
		if (!bad)
			write_s16(a.kind, res.data(), y.mutable_data(), res.size());
	}
	if (bad)
		throw py::value_error("x contains NaN or infinity");
	return y;
}

// ---- utility functions ------------------------------------------------------------

// An integer array (or scalar) whose values all fit [lo, hi], as int64.
py::array_t<int64_t> int_values(const py::handle &h, const char *what, int64_t lo, int64_t hi)
{
	py::array a = py::array::ensure(h);
	if (!a || !(a.dtype().kind() == 'i' || a.dtype().kind() == 'u'))
		throw py::type_error(std::string(what) + " must be integers (an integer array or int)");
	if (a.dtype().kind() == 'u' && a.dtype().itemsize() == 8) {
		auto u = a.cast<py::array_t<uint64_t, py::array::c_style | py::array::forcecast>>();
		for (py::ssize_t i = 0; i < u.size(); i++)
			if (u.data()[i] > static_cast<uint64_t>(hi))
				throw py::value_error(std::string(what) + " holds values outside " + std::to_string(lo) +
						      ".." + std::to_string(hi));
	}
	auto v = py::array_t<int64_t, py::array::c_style | py::array::forcecast>::ensure(a);
	for (py::ssize_t i = 0; i < v.size(); i++)
		if (v.data()[i] < lo || v.data()[i] > hi)
			throw py::value_error(std::string(what) + " holds values outside " + std::to_string(lo) + ".." +
					      std::to_string(hi));
	return v;
}

template <typename T> py::array shaped_like(const py::array &a)
{
	std::vector<py::ssize_t> shape(a.shape(), a.shape() + a.ndim());
	return py::array_t<T>(shape);
}

// Integer inputs in [lo, hi] mapped element by element to int32, without the GIL.
template <typename F> py::array map_to_int32(const py::handle &x, const char *what, int64_t lo, int64_t hi, F f)
{
	auto v = int_values(x, what, lo, hi);
	py::array y = shaped_like<int32_t>(v);
	auto *o = static_cast<int32_t *>(y.mutable_data());
	const int64_t *in = v.data();
	const py::ssize_t n = v.size();
	py::gil_scoped_release nogil;
	for (py::ssize_t i = 0; i < n; i++)
		o[i] = f(in[i]);
	return y;
}

py::array db_to_scale(const py::handle &db)
{
	return map_to_int32(db, "dB", INT32_MIN, INT32_MAX,
			    [](int64_t v) { return UTIL_dBToScale(static_cast<int32_t>(v)); });
}

py::array log10_q15(const py::handle &x)
{
	return map_to_int32(x, "x", INT16_MIN, INT16_MAX, [](int64_t v) { return _LOG10(static_cast<int16_t>(v)); });
}

int64_t int_scalar(const py::handle &h, const char *what, int64_t lo, int64_t hi)
{
	if (!py::isinstance<py::int_>(h) || py::isinstance<py::bool_>(h)) {
		py::array a = py::array::ensure(h);
		if (!a || a.ndim() != 0 || !(a.dtype().kind() == 'i' || a.dtype().kind() == 'u'))
			throw py::type_error(std::string(what) + " must be an integer");
	}
	py::int_ i = py::int_(py::reinterpret_borrow<py::object>(h));
	long long v;
	try {
		v = i.cast<long long>();
	} catch (const py::cast_error &) {
		throw py::value_error(std::string(what) + " lies outside " + std::to_string(lo) + ".." + std::to_string(hi));
	}
	if (v < lo || v > hi)
		throw py::value_error(std::string(what) + " lies outside " + std::to_string(lo) + ".." + std::to_string(hi));
	return v;
}

py::array smooth_run(const py::handle &targets, const py::handle &value, const py::handle &rise,
		     const py::handle *fall, bool wide)
{
	const int64_t lo = wide ? INT32_MIN : INT16_MIN, hi = wide ? INT32_MAX : INT16_MAX;
	auto t = int_values(targets, "targets", lo, hi);
	if (t.ndim() != 1)
		throw py::value_error("targets must be 1-D");
	int64_t v = int_scalar(value, "value", lo, hi);
	const int16_t cr = static_cast<int16_t>(int_scalar(rise, fall ? "rise" : "coef", INT16_MIN, INT16_MAX));
	const int16_t cf = fall ? static_cast<int16_t>(int_scalar(*fall, "fall", INT16_MIN, INT16_MAX)) : 0;
	const py::ssize_t n = t.size();
	const int64_t *in = t.data();
	if (wide) {
		py::array_t<int32_t> y(n);
		int32_t *o = y.mutable_data();
		int32_t s = static_cast<int32_t>(v);
		py::gil_scoped_release nogil;
		for (py::ssize_t i = 0; i < n; i++)
			o[i] = s = fall ? UTIL_SmoothAsym32(s, cr, cf, static_cast<int32_t>(in[i]))
					: UTIL_Smooth32(s, cr, static_cast<int32_t>(in[i]));
		return y;
	}
	py::array_t<int16_t> y(n);
	int16_t *o = y.mutable_data();
	int16_t s = static_cast<int16_t>(v);
	py::gil_scoped_release nogil;
	for (py::ssize_t i = 0; i < n; i++)
		o[i] = s = fall ? UTIL_SmoothAsym(s, cr, cf, static_cast<int16_t>(in[i]))
				: UTIL_Smooth(s, cr, static_cast<int16_t>(in[i]));
	return y;
}

py::tuple fir3(const py::handle &xh, const py::handle &coefs_h, const py::handle &shift_h, const py::handle &history_h)
{
	auto x = int_values(xh, "x", INT16_MIN, INT16_MAX);
	auto c = int_values(coefs_h, "coefs", INT16_MIN, INT16_MAX);
	if (x.ndim() != 1 || c.ndim() != 1)
		throw py::value_error("x and coefs must be 1-D");
	const size_t n = static_cast<size_t>(x.size()), taps = static_cast<size_t>(c.size());
	if (n == 0 || n % 4)
		throw py::value_error("len(x) must be a positive multiple of 4, got " + std::to_string(n));
	if (taps == 0 || taps % 4 || taps > 32764)
		throw py::value_error("len(coefs) must be a multiple of 4 in 4..32764, got " + std::to_string(taps));
	const int16_t shift = static_cast<int16_t>(int_scalar(shift_h, "shift", 0, INT16_MAX));
	std::vector<int16_t> hist(taps, 0), coef(taps), data(n);
	if (!history_h.is_none()) {
		auto h = int_values(history_h, "history", INT16_MIN, INT16_MAX);
		if (h.ndim() != 1 || static_cast<size_t>(h.size()) != taps)
			throw py::value_error("history must be 1-D with len(coefs) = " + std::to_string(taps) + " samples");
		for (size_t i = 0; i < taps; i++)
			hist[i] = static_cast<int16_t>(h.data()[i]);
	}
	for (size_t i = 0; i < taps; i++)
		coef[i] = static_cast<int16_t>(c.data()[i]);
	for (size_t i = 0; i < n; i++)
		data[i] = static_cast<int16_t>(x.data()[i]);
	{
		py::gil_scoped_release nogil;
		const size_t block = 32764 / 4 * 4;
		std::vector<int16_t> scratch(taps + block);
		for (size_t at = 0; at < n; at += block) {
			const size_t b = std::min(block, n - at);
			if (UTIL_Fir3(data.data() + at, static_cast<int16_t>(b), hist.data(), coef.data(),
				      static_cast<int16_t>(taps), shift, scratch.data()) != 0)
				throw std::logic_error("UTIL_Fir3 refused checked arguments");
		}
	}
	py::array_t<int16_t> y(static_cast<py::ssize_t>(n)), h(static_cast<py::ssize_t>(taps));
	std::memcpy(y.mutable_data(), data.data(), n * 2);
	std::memcpy(h.mutable_data(), hist.data(), taps * 2);
	return py::make_tuple(y, h);
}

py::array_t<float> float_vector(const py::handle &h, const char *what)
{
	py::array a = py::array::ensure(h);
	if (!a || !(a.dtype().kind() == 'f' || a.dtype().kind() == 'i' || a.dtype().kind() == 'u'))
		throw py::type_error(std::string(what) + " must be a real numeric array");
	if (a.ndim() != 1)
		throw py::value_error(std::string(what) + " must be 1-D");
	return py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(a);
}

py::array spline_fit(const py::handle &xh, const py::handle &fh, const py::handle &xeh)
{
	auto x = float_vector(xh, "x"), f = float_vector(fh, "f"), xe = float_vector(xeh, "xe");
	if (x.size() != f.size())
		throw py::value_error("x and f must have the same length");
	if (x.size() < 2)
		throw py::value_error("at least 2 knots are needed");
	if (xe.size() < 1)
		throw py::value_error("xe is empty");
	if (x.size() > INT32_MAX || xe.size() > INT32_MAX)
		throw py::value_error("too many points");
	py::array_t<float> fe(xe.size());
	int st;
	{
		py::gil_scoped_release nogil;
		st = UTIL_SplineFit(static_cast<int>(x.size()), x.data(), f.data(), static_cast<int>(xe.size()),
				    xe.data(), fe.mutable_data());
	}
	if (st == -3)
		throw py::value_error("x must be strictly increasing (and not NaN)");
	if (st == -10)
		throw std::bad_alloc();
	if (st != 0)
		throw std::runtime_error("UTIL_SplineFit failed with " + std::to_string(st));
	return fe;
}

} // namespace

PYBIND11_MODULE(rsmpl, m)
{
	m.doc() = R"(Bit-exact conversion with the fixed-point rsmplrate converters.

The results are the samples the device's alsa-lib module produces: the
converters' own code runs here, fed whole periods in the exact ratio of the
rates. Audio is numpy arrays, 1-D (frames) or 2-D (frames, channels), of
int16 (passed through bit-exact) or float32/float64 in [-1, 1) (rounded to
int16 like numpy.rint(x * 32768), saturated, and converted back as y / 32768).

    y = rsmpl.resample(x, 44100, 48000, converter="rsmplrate")
    r = rsmpl.Resampler(16000, 48000, channels=2, converter="rsmplrate")
    y = numpy.concatenate([r.process(a), r.process(b, last=True)])

Conversions release the GIL.)";
	m.attr("__version__") = RSMPL_VERSION;

	m.def("resample", &resample, py::arg("x"), py::arg("in_rate"), py::arg("out_rate"),
	      py::arg("converter") = "rsmplrate_best",
	      R"(Convert a whole signal from in_rate to out_rate (Hz).

x: numpy array, 1-D (frames) or 2-D (frames, channels), int16, float32 or
float64, C-contiguous, not empty. Returns an array of the same dtype and
number of dimensions with exactly round(n * out_rate / in_rate) frames
(halves rounded up). The converter's delay is taken out: a click at input
frame k lands at output frame k * out_rate / in_rate. The end of the signal
is followed by silence, so the filters' tails are included up to that length.

converter: the name alsa-lib would use, "rsmplrate_best" or "rsmplrate".
The samples are the converter's, run with periods of about 20 ms in the exact
ratio of the rates (a multiple of 12 input frames); channels go through one
instance in groups as large as the converter accepts. Each column gives the
same result as its own 1-D conversion. The device accepts 8000..48000 Hz;
rates here may be 1..1000000 Hz with a ratio of 1/8..8.

Raises TypeError for a non-array or another dtype, ValueError for a bad
shape, a non-contiguous or empty array, NaN or infinity, rates of 0 or beyond
the ratio bounds, or an unknown converter.)");

	py::class_<Resampler>(m, "Resampler", R"(A streaming conversion.

Resampler(in_rate, out_rate, channels=1, converter="rsmplrate_best")

process(x) takes chunks of any size (zero frames included) and returns the
output they complete; process(x, last=True) also returns the rest. The chunks'
outputs, concatenated, equal resample() of the whole signal bit for bit.
Arguments and errors are those of resample(); a rejected call changes nothing.
One Resampler may be shared by threads: calls are serialised.)")
	    .def(py::init<py::object, py::object, py::object, py::object>(), py::arg("in_rate"), py::arg("out_rate"),
		 py::arg("channels") = 1, py::arg("converter") = "rsmplrate_best")
	    .def(
		"process", [](Resampler &r, const py::handle &x, bool last) { return r.process(x, last, true); },
		py::arg("x"), py::arg("last") = false,
		R"(Convert the next chunk; with last=True end the stream and return its rest.

x: 1-D (frames) for one channel, 2-D (frames, channels) otherwise; same dtype
rules as resample(), empty chunks allowed. Returns the same dtype and number
of dimensions. After last=True only reset() may follow.)")
	    .def("reset", &Resampler::reset, "Start a new stream, as on a fresh Resampler.")
	    .def_property_readonly("in_rate", &Resampler::in_rate)
	    .def_property_readonly("out_rate", &Resampler::out_rate)
	    .def_property_readonly("channels", &Resampler::channels)
	    .def_property_readonly("converter", &Resampler::converter)
	    .def_property_readonly("delay", &Resampler::delay,
				   "The converter's measured delay in output frames, which is taken out.")
	    .def_property_readonly("periods", &Resampler::periods,
				   "(input, output) frames of the periods the converter is run with.")
	    .def("__repr__", &Resampler::repr);

	m.def(
	    "up", [](const py::handle &x, const py::handle &f) { return run_stage(true, x, f); }, py::arg("x"),
	    py::arg("factor"),
	    R"(The raw RSMPL_Up stream by factor 1.5 (3:2), 2, 3, 4 or 6.

Exactly what RSMPL_Up gives for the whole signal on a freshly initialised
context, filter delay included; each column of a 2-D x on its own context.
dtypes as in resample(). Output: factor * n samples (3 * (n // 2) for 1.5:
a last odd sample enters the filter but completes no output). The signal is
cut into blocks the stage accepts, which gives the same result as any other
cut. x shorter than the stage's smallest block (4 or 6 samples) raises
ValueError.)");
	m.def(
	    "down", [](const py::handle &x, const py::handle &f) { return run_stage(false, x, f); }, py::arg("x"),
	    py::arg("factor"),
	    R"(The raw RSMPL_Down stream by factor 1.5 (2:3), 2, 3, 4 or 6.

Exactly what RSMPL_Down gives for the whole signal on a freshly initialised
context, filter delay included; each column on its own context. The stages
take blocks of a multiple of 4 samples (factors 2 and 4) or of 6 (1.5, 3, 6):
a tail shorter than that is not converted and does not appear in the output,
which has n // 4 * 4 / factor or n // 6 * 6 / factor samples. x too short for
the stage's smallest block (8, 16, 18 or 36 samples) raises ValueError.)");

	m.def("db_to_scale", &db_to_scale, py::arg("db"),
	      R"(UTIL_dBToScale over an integer array: levels in Q15 dB (1 dB = 32768) to
Q22 linear factors (0 dB = 0x400000), int32, same shape. Levels clamp to
+-90.3 dB, results saturate at 0x7FFFFFFF.)");
	m.def("log10_q15", &log10_q15, py::arg("x"),
	      R"(_LOG10 over an integer array of int16 range: log10(x / 32768) in Q15, int32,
same shape. Values of 1 or less count as 1.)");
	m.def(
	    "smooth", [](const py::handle &t, const py::handle &c, const py::handle &v) { return smooth_run(t, v, c, nullptr, false); },
	    py::arg("targets"), py::arg("coef"), py::arg("value") = 0,
	    R"(UTIL_Smooth run over a sequence of targets (int16 range): starting from
value, out[i] = UTIL_Smooth(out[i-1], coef, targets[i]). coef is Q15. int16.)");
	m.def(
	    "smooth32", [](const py::handle &t, const py::handle &c, const py::handle &v) { return smooth_run(t, v, c, nullptr, true); },
	    py::arg("targets"), py::arg("coef"), py::arg("value") = 0,
	    "UTIL_Smooth32 run over a sequence of int32 targets, as smooth(). int32.");
	m.def(
	    "smooth_asym",
	    [](const py::handle &t, const py::handle &r, const py::handle &f, const py::handle &v) {
		    return smooth_run(t, v, r, &f, false);
	    },
	    py::arg("targets"), py::arg("rise"), py::arg("fall"), py::arg("value") = 0,
	    R"(UTIL_SmoothAsym run over a sequence of targets: rise is the Q15 coefficient
toward higher targets, fall toward lower ones. int16.)");
	m.def(
	    "smooth_asym32",
	    [](const py::handle &t, const py::handle &r, const py::handle &f, const py::handle &v) {
		    return smooth_run(t, v, r, &f, true);
	    },
	    py::arg("targets"), py::arg("rise"), py::arg("fall"), py::arg("value") = 0,
	    "UTIL_SmoothAsym32 run over a sequence of int32 targets, as smooth_asym(). int32.");
	m.def("fir3", &fir3, py::arg("x"), py::arg("coefs"), py::arg("shift") = 0, py::arg("history") = py::none(),
	      R"(UTIL_Fir3: y[i] = sum coefs[k] * x[i - k] in Q15, times 2**shift, saturated.

x: int16-range integers, length a multiple of 4; coefs: Q15, length a
multiple of 4 (4..32764); history: the state from the previous call (zeros by
default). Returns (y, history) as int16 arrays; passing history on makes
consecutive calls one continuous filter.)");
	m.def("spline_fit", &spline_fit, py::arg("x"), py::arg("f"), py::arg("xe"),
	      R"(UTIL_SplineFit: the monotone cubic (PCHIP) through the knots (x, f),
evaluated at xe, in single precision (inputs are converted to float32).
x strictly increasing, at least 2 knots; points outside the knots use the end
cubics. Returns float32 of xe's length.)");
}
