// The extension module ctessel._raw: raw data files in ISMRMRD's format, read in blocks and written.
//
// libismrmrd writes. Files are read through HDF5 itself: the library opens them for writing, always, which
// needs the permission, turns an empty file into one of HDF5, and locks out the jobs that reconstruct other
// parts. It also takes a quarter of a millisecond for each acquisition, and copies as many samples as a
// header promises, however few the file holds.

#include <ismrmrd/dataset.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "lines.h"

namespace {

namespace py = pybind11;
using namespace ISMRMRD;
using namespace ctessel_lines;
using Trajectory = py::array_t<float, py::array::f_style>;
using WaveformSamples = py::array_t<std::uint32_t, py::array::f_style>;

constexpr std::size_t kLongestHeader = 64 << 20;  // a damaged file may promise any length

// One at a time: libismrmrd keeps its errors in one place, and HDF5 may be built without locks. Who holds
// it never waits for the interpreter's lock, which long reads give up before: two threads that held one
// each would wait for ever.
std::mutex file_lock;

/// The deepest reason on libismrmrd's stack of errors, which is emptied.
std::string library_reason() {
  std::string reason = "unknown reason";
  for (char *file, *function, *text; ismrmrd_pop_error(&file, nullptr, &function, nullptr, &text);)
    if (text) reason = text;
  return reason.substr(0, reason.find('\n'));
}

/// HDF5's errors from the outermost call inwards: the last one says what happened.
herr_t keep_reason(unsigned, const H5E_error2_t* error, void* reason) {
  if (error->desc) *static_cast<std::string*>(reason) = error->desc;
  return 0;
}

std::string hdf5_reason() {
  std::string reason = "unknown reason";
  H5Ewalk2(H5E_DEFAULT, H5E_WALK_DOWNWARD, keep_reason, &reason);
  return reason.substr(0, reason.find('\n'));
}

/// HDF5's handle of something, closed at the end.
class Handle {
 public:
  Handle(hid_t id, herr_t (*close)(hid_t)) : id_(id), close_(close) {
    if (id < 0) throw std::runtime_error(hdf5_reason());
  }
  ~Handle() {
    if (id_ >= 0) close_(id_);
  }
  Handle(Handle&& other) noexcept : id_(std::exchange(other.id_, -1)), close_(other.close_) {}
  operator hid_t() const { return id_; }

 private:
  hid_t id_;
  herr_t (*close_)(hid_t);
};

void check(herr_t status) {
  if (status < 0) throw std::runtime_error(hdf5_reason());
}

/// Keeps HDF5 from printing, also of errors that it finds on its stack when the process ends, and one
/// thread at a time in it.
class Quiet {
 public:
  Quiet() : guard_(file_lock) {
    H5Eget_auto2(H5E_DEFAULT, &print_, &data_);
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  }
  ~Quiet() {
    H5Eclear2(H5E_DEFAULT);
    H5Eset_auto2(H5E_DEFAULT, print_, data_);
  }

 private:
  std::lock_guard<std::mutex> guard_;
  H5E_auto2_t print_ = nullptr;
  void* data_ = nullptr;
};

struct stat status_of(hid_t file) {
  void* descriptor = nullptr;
  check(H5Fget_vfd_handle(file, H5P_DEFAULT, &descriptor));
  struct stat status;
  if (fstat(*static_cast<int*>(descriptor), &status) != 0)
    throw std::runtime_error("its state is unknown");
  return status;
}

/// The first handle of a file: by device and inode, as one file may have several names, and one name
/// several files one after another.
hid_t shared(hid_t file) {
  static std::vector<hid_t> known;
  std::erase_if(known, [](hid_t id) { return H5Iis_valid(id) <= 0; });
  const struct stat status = status_of(file);
  for (const hid_t other : known) {
    const struct stat s = status_of(other);
    if (s.st_dev == status.st_dev && s.st_ino == status.st_ino) return other;
  }
  known.push_back(file);
  return file;
}

/// One handle for all who read a file, which counts them: HDF5 keeps the first one's memory in the types
/// of the data, and uses it after that handle was closed.
Handle open_file(const std::string& path) {
  const Handle own(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
  const hid_t file = shared(own);
  H5Iinc_ref(file);
  return Handle(file, H5Fclose);
}

/// A data set of a group; `what` names it in errors.
Handle open_data_set(hid_t file, const std::string& group, const char* name, const char* what) {
  const Handle in(H5Gopen2(file, group.c_str(), H5P_DEFAULT), H5Gclose);
  if (H5Lexists(in, name, H5P_DEFAULT) <= 0)
    throw std::runtime_error(std::string("no ") + what + " in the group \"" + group + "\"");
  return Handle(H5Dopen2(in, name, H5P_DEFAULT), H5Dclose);
}

/// The header: a text of fixed or variable length, in ASCII or UTF-8. libismrmrd takes one of the four.
std::string read_text(hid_t file, const std::string& group) {
  const Handle set = open_data_set(file, group, "xml", "header");
  const Handle type(H5Dget_type(set), H5Tclose), space(H5Dget_space(set), H5Sclose);
  if (H5Tget_class(type) != H5T_STRING || H5Sget_simple_extent_npoints(space) != 1)
    throw std::runtime_error("its header is not text");
  if (H5Tis_variable_str(type) > 0) {
    char* text = nullptr;
    check(H5Dread(set, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, &text));
    const std::unique_ptr<char, herr_t (*)(void*)> owner(text, H5free_memory);
    return text ? text : "";
  }
  const std::size_t size = H5Tget_size(type);
  if (size > kLongestHeader) throw std::runtime_error("its header is longer than 64 MiB");
  std::string text(size, '\0');
  check(H5Dread(set, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, text.data()));
  return text.substr(0, text.find('\0'));
}

herr_t note_group(hid_t, const char* name, const H5L_info_t*, void* groups) {
  const std::string path = name;
  if (path.ends_with("/data"))
    static_cast<std::vector<std::string>*>(groups)->push_back(path.substr(0, path.size() - 5));
  return 0;
}

/// Groups of a file that hold acquisitions, by name, which need not be text: bytes, for the package to
/// decode.
py::list list_groups(const std::string& path) {
  std::vector<std::string> groups;
  {
    const Quiet quiet;
    check(H5Lvisit(open_file(path), H5_INDEX_NAME, H5_ITER_INC, note_group, &groups));
  }
  py::list names;
  for (const std::string& group : groups) names.append(py::bytes(group));
  return names;
}

/// What is wanted of one acquisition; the trajectory stays in the file.
struct Record {
  std::uint8_t head[kHeadBytes];
  hvl_t data;
};

/// Lines of `block`, (sample, coil, line), to where they start in `array`: those whose oversampling was
/// removed, so that they are no longer what the file holds.
void put(const Samples& block, py::array_t<Sample> array, const Indices& offsets,
         unsigned coil_axis, unsigned shift, const Flags& add) {
  const Target target(array, coil_axis, shift);
  const auto at = offsets.unchecked<1>();
  const auto adds = add.unchecked<1>();
  if (block.ndim() != 3 || block.shape(2) != at.size() || adds.size() != at.size())
    throw py::value_error("expected (sample, coil, line), and an offset and a flag for each line");
  const ptrdiff_t n = block.shape(0), coils = block.shape(1);
  const Sample* lines = block.data();
  const py::gil_scoped_release release;
  for (ptrdiff_t i = 0; i < at.size(); ++i)
    target.put({lines + i * n * coils, n, coils, n, false}, at(i), 0, adds(i));
}

/// Some acquisitions of a file. Python holds this, not arrays of them: a line is copied once, from where
/// HDF5 left it to its place in k-space.
class Acquisitions {
 public:
  /// `numbers` grow.
  explicit Acquisitions(std::vector<hsize_t> numbers)
      : numbers_(std::move(numbers)), records_(numbers_.size()) {}

  const std::vector<hsize_t>& numbers() const { return numbers_; }
  Record* records() { return records_.data(); }

  /// For HDF5, which asks for room for each acquisition: all of it is given back at once.
  static void* allocate(std::size_t bytes, void* acquisitions) {
    try {
      return static_cast<Acquisitions*>(acquisitions)->samples_.allocate(bytes);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
  static void keep(void*, void*) {}

  /// Refuses what holds other numbers of samples than its headers say.
  void check() const {
    for (std::size_t i = 0; i < records_.size(); ++i) {
      const ISMRMRD_AcquisitionHeader h = head(i);
      const std::size_t samples = h.number_of_samples, coils = h.active_channels;
      if (records_[i].data.len != 2 * samples * coils)
        throw std::runtime_error(name(i) + " has " + std::to_string(records_[i].data.len / 2) +
                                 " values, its header says " + std::to_string(samples) +
                                 " samples of " + std::to_string(coils) + " coils");
    }
  }

  /// All of them as messages of the streaming protocol, without their trajectories: one text for many
  /// acquisitions, as a call for each would cost more than its bytes.
  py::bytes messages() const {
    constexpr std::uint16_t kId = 1008;
    std::string text;
    for (const Record& record : records_) {
      ISMRMRD_AcquisitionHeader h = head_of(record.head);
      h.trajectory_dimensions = 0;
      text.append(reinterpret_cast<const char*>(&kId), sizeof kId);
      text.append(reinterpret_cast<const char*>(&h), kHeadBytes);
      text.append(static_cast<const char*>(record.data.p), record.data.len * sizeof(float));
    }
    return text;
  }

  /// Acquisition `number` of the file.
  Line line(std::size_t number) const {
    const auto at = std::lower_bound(numbers_.begin(), numbers_.end(), number);
    if (at == numbers_.end() || *at != number)
      throw py::index_error("acquisitions that were not read");
    const auto i = static_cast<std::size_t>(at - numbers_.begin());
    return line_of(head(i), static_cast<const Sample*>(records_[i].data.p), number);
  }

 private:
  std::string name(std::size_t i) const { return "acquisition " + std::to_string(numbers_[i]); }

  ISMRMRD_AcquisitionHeader head(std::size_t i) const { return head_of(records_[i].head); }

  std::vector<hsize_t> numbers_;
  std::vector<Record> records_;
  std::pmr::monotonic_buffer_resource samples_;
};

/// A file that is read. Its own descriptions of the data are looked up once, for all reads.
class Reader {
 public:
  Reader(const std::string& path, const std::string& group) {
    const Quiet quiet;
    open_.emplace(path, group);
    const hssize_t points =
        H5Sget_simple_extent_npoints(Handle(H5Dget_space(open_->data), H5Sclose));
    size_ = points < 0 ? 0 : static_cast<std::size_t>(points);
  }

  ~Reader() {
    const Quiet quiet;
    open_.reset();
  }

  const std::string& header() const { return open_->header; }
  std::size_t size() const { return size_; }

  /// Headers as bytes, of which NumPy makes columns: no object is made for each.
  Bytes headers(std::size_t first, std::size_t count) const {
    check_range(first, count);
    Bytes headers({count, kHeadBytes});
    std::uint8_t* to = headers.mutable_data();
    {
      const py::gil_scoped_release release;
      const Quiet quiet;
      read_into(part(first, count), open_->head_type, to, H5P_DEFAULT);
    }
    return headers;
  }

  /// Acquisitions of these numbers, which grow. Meanwhile other threads transform what was read before.
  std::unique_ptr<Acquisitions> read(const Indices& numbers) const {
    const auto given = numbers.unchecked<1>();
    std::vector<hsize_t> wanted(static_cast<std::size_t>(given.size()));
    for (ptrdiff_t i = 0; i < given.size(); ++i) {
      if (given(i) < 0 || (i > 0 && given(i) <= given(i - 1)))
        throw py::value_error("expected numbers that grow");
      wanted[static_cast<std::size_t>(i)] = static_cast<hsize_t>(given(i));
    }
    if (!wanted.empty()) check_range(wanted.back(), 1);
    auto block = std::make_unique<Acquisitions>(std::move(wanted));
    const py::gil_scoped_release release;
    const Quiet quiet;
    const Handle how(H5Pcreate(H5P_DATASET_XFER), H5Pclose);
    check(H5Pset_vlen_mem_manager(how, Acquisitions::allocate, block.get(), Acquisitions::keep,
                                  block.get()));
    read_into(selected(block->numbers()), open_->record_type, block->records(), how);
    block->check();
    return block;
  }

 private:
  struct Open {
    Handle file;
    std::string header;
    Handle data, head_type, record_type;

    Open(const std::string& path, const std::string& group)
        : file(open_file(path)),
          header(read_text(file, group)),
          data(open_data_set(file, group, "data", "acquisitions")),
          head_type(H5Tcreate(H5T_COMPOUND, kHeadBytes), H5Tclose),
          record_type(H5Tcreate(H5T_COMPOUND, sizeof(Record)), H5Tclose) {
      const Handle head = packed_head(Handle(H5Dget_type(data), H5Tclose));
      const Handle samples(H5Tvlen_create(H5T_NATIVE_FLOAT), H5Tclose);
      check(H5Tinsert(head_type, "head", 0, head));
      check(H5Tinsert(record_type, "head", offsetof(Record, head), head));
      check(H5Tinsert(record_type, "data", offsetof(Record, data), samples));
    }
  };

  /// The file's own description of a header, without gaps: the layout of libismrmrd's structure.
  static Handle packed_head(hid_t type) {
    const int member = H5Tget_class(type) == H5T_COMPOUND ? H5Tget_member_index(type, "head") : -1;
    if (member < 0) throw std::runtime_error("its acquisitions have no headers");
    Handle head(H5Tget_member_type(type, static_cast<unsigned>(member)), H5Tclose);
    check(H5Tpack(head));
    if (H5Tget_size(head) != kHeadBytes)
      throw std::runtime_error("its acquisitions have headers of another version of the format");
    return head;
  }

  void check_range(std::size_t first, std::size_t count) const {
    if (first > size_ || count > size_ - first)
      throw py::index_error("acquisitions outside the file");
  }

  Handle part(hsize_t first, hsize_t count) const {
    Handle space(H5Dget_space(open_->data), H5Sclose);
    check(H5Sselect_hyperslab(space, H5S_SELECT_SET, &first, nullptr, &count, nullptr));
    return space;
  }

  /// A run without gaps is one piece to HDF5; points are looked up one by one.
  Handle selected(const std::vector<hsize_t>& numbers) const {
    if (numbers.empty()) return part(0, 0);
    if (numbers.back() - numbers.front() + 1 == numbers.size())
      return part(numbers.front(), numbers.size());
    Handle space(H5Dget_space(open_->data), H5Sclose);
    check(H5Sselect_elements(space, H5S_SELECT_SET, numbers.size(), numbers.data()));
    return space;
  }

  void read_into(const Handle& space, hid_t type, void* to, hid_t how) const {
    const hssize_t points = H5Sget_select_npoints(space);
    if (points <= 0) return;
    const auto count = static_cast<hsize_t>(points);
    const Handle memory(H5Screate_simple(1, &count, nullptr), H5Sclose);
    check(H5Dread(open_->data, type, memory, space, how, to));
  }

  std::optional<Open> open_;
  std::size_t size_ = 0;
};

/// A file that libismrmrd appends to.
class Writer {
 public:
  Writer(const std::string& path, const std::string& group, const std::string& header) {
    const Quiet quiet;
    if (ismrmrd_init_dataset(&set_, path.c_str(), group.c_str()) != ISMRMRD_NOERROR)
      throw std::runtime_error(library_reason());
    if (ismrmrd_open_dataset(&set_, true) != ISMRMRD_NOERROR) {
      // Only closing frees the names, and that needs an open file.
      std::free(set_.filename);
      std::free(set_.groupname);
      throw std::runtime_error(library_reason());
    }
    open_ = ismrmrd_write_header(&set_, header.c_str()) == ISMRMRD_NOERROR;
    if (open_) return;
    const std::string reason = library_reason();
    ismrmrd_close_dataset(&set_);
    throw std::runtime_error(reason);
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  ~Writer() { close(); }  // where Python forgets a writer, as after an error

  void close() {
    const Quiet quiet;
    if (std::exchange(open_, false)) ismrmrd_close_dataset(&set_);
  }

  /// Samples (sample, coil), trajectory (dimension, sample); their numbers replace the header's, which
  /// may be that of a line before oversampling was removed.
  void append(const Bytes& head, const Samples& samples, const Trajectory& trajectory) {
    if (head.size() != static_cast<py::ssize_t>(kHeadBytes) || samples.ndim() != 2)
      throw py::value_error("expected a header of 340 bytes and samples (sample, coil)");
    if (trajectory.ndim() != 2 ||
        (trajectory.size() > 0 && trajectory.shape(1) != samples.shape(0)))
      throw py::value_error("expected a trajectory (dimension, sample)");
    ISMRMRD_Acquisition acquisition{};
    std::memcpy(&acquisition.head, head.data(), kHeadBytes);
    acquisition.head.number_of_samples = static_cast<std::uint16_t>(samples.shape(0));
    acquisition.head.active_channels = static_cast<std::uint16_t>(samples.shape(1));
    acquisition.head.available_channels = acquisition.head.active_channels;
    acquisition.head.trajectory_dimensions = static_cast<std::uint16_t>(trajectory.shape(0));
    acquisition.data = const_cast<complex_float_t*>(samples.data());  // read only
    acquisition.traj = const_cast<float*>(trajectory.data());
    write([&] { return ismrmrd_append_acquisition(&set_, &acquisition); });
  }

  /// Samples (sample, channel) of a header as it is on the wire.
  void append_waveform(const Bytes& head, const WaveformSamples& samples) {
    if (head.size() != ptrdiff_t{sizeof(ISMRMRD_WaveformHeader)} || samples.ndim() != 2)
      throw py::value_error("expected a header of 40 bytes and samples (sample, channel)");
    ISMRMRD_Waveform waveform{};
    std::memcpy(&waveform.head, head.data(), sizeof waveform.head);
    waveform.head.number_of_samples = static_cast<std::uint16_t>(samples.shape(0));
    waveform.head.channels = static_cast<std::uint16_t>(samples.shape(1));
    waveform.data = const_cast<std::uint32_t*>(samples.data());
    write([&] { return ismrmrd_append_waveform(&set_, &waveform); });
  }

 private:
  template <class Append>
  void write(const Append& append) {
    if (!open_) throw std::runtime_error("the file has been closed");
    const py::gil_scoped_release release;
    const Quiet quiet;
    if (append() != ISMRMRD_NOERROR) throw std::runtime_error(library_reason());
  }

  ISMRMRD_Dataset set_{};
  bool open_ = false;
};

/// libismrmrd would print its errors; `library_reason` takes them from its stack instead.
void ignore_error(const char*, int, const char*, int, const char*) {}

}  // namespace

PYBIND11_MODULE(_raw, m) {
  ismrmrd_set_error_handler(ignore_error);
  bind_stream(m);
  py::class_<Reader>(m, "Reader")
      .def(py::init<const std::string&, const std::string&>(), py::arg("path"), py::arg("group"))
      .def_property_readonly("header", [](const Reader& r) { return py::bytes(r.header()); })
      .def("__len__", &Reader::size)
      .def("headers", &Reader::headers, py::arg("first"), py::arg("count"))
      .def("read", &Reader::read, py::arg("numbers"));
  bind_lines(py::class_<Acquisitions>(m, "Acquisitions")).def("messages", &Acquisitions::messages);
  m.def("list_groups", list_groups, py::arg("path"));
  m.def("put", put, py::arg("block").noconvert(), py::arg("array").noconvert(), py::arg("offsets"),
        py::arg("coil_axis"), py::arg("shift"), py::arg("add"));
  py::class_<Writer>(m, "Writer")
      .def(py::init<const std::string&, const std::string&, const std::string&>(), py::arg("path"),
           py::arg("group"), py::arg("header"))
      .def("append", &Writer::append, py::arg("head"), py::arg("samples"),
           py::arg("trajectory") = Trajectory(std::vector<ptrdiff_t>{0, 0}))
      .def("append_waveform", &Writer::append_waveform, py::arg("head"), py::arg("samples"))
      .def("close", &Writer::close);
}
