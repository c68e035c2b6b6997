// The extension module ctessel._raw: raw data files in ISMRMRD's format, read in blocks and written.
//
// libismrmrd opens files and appends to them. Acquisitions are read through its open HDF5 file, many
// at a time: one at a time costs a quarter of a millisecond each, and the library copies as many
// samples as a header promises, however few the file holds.

#include <ismrmrd/dataset.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace py = pybind11;
using namespace ISMRMRD;
using Samples = py::array_t<std::complex<float>, py::array::f_style>;
using Bytes = py::array_t<std::uint8_t, py::array::c_style>;

constexpr std::size_t kHeadBytes = sizeof(ISMRMRD_AcquisitionHeader);
static_assert(kHeadBytes == 340, "ctessel/raw.py describes this layout");

// One at a time: libismrmrd keeps its errors in one place, and HDF5 may be built without locks.
std::mutex file_lock;

/// The deepest reason on libismrmrd's stack of errors, which is emptied.
std::string library_reason() {
  std::string reason = "unknown reason";
  for (char *file, *function, *text; ismrmrd_pop_error(&file, nullptr, &function, nullptr, &text);)
    if (text) reason = text;
  return reason.substr(0, reason.find('\n'));
}

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
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  operator hid_t() const { return id_; }

 private:
  hid_t id_;
  herr_t (*close_)(hid_t);
};

void check(herr_t status) {
  if (status < 0) throw std::runtime_error(hdf5_reason());
}

/// Keeps HDF5 from printing, and one thread at a time in it.
class Quiet {
 public:
  Quiet() : guard_(file_lock) {
    H5Eget_auto2(H5E_DEFAULT, &print_, &data_);
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  }
  ~Quiet() { H5Eset_auto2(H5E_DEFAULT, print_, data_); }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  std::lock_guard<std::mutex> guard_;
  H5E_auto2_t print_ = nullptr;
  void* data_ = nullptr;
};

/// A file that libismrmrd holds open.
class File {
 public:
  File(const std::string& path, const std::string& group, bool create) {
    if (ismrmrd_init_dataset(&set_, path.c_str(), group.c_str()) != ISMRMRD_NOERROR)
      throw std::runtime_error(library_reason());
    if (ismrmrd_open_dataset(&set_, create) != ISMRMRD_NOERROR) {
      free_names();
      throw std::runtime_error(library_reason());
    }
  }
  ~File() { ismrmrd_close_dataset(&set_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  const ISMRMRD_Dataset* operator->() const { return &set_; }
  const ISMRMRD_Dataset* get() const { return &set_; }

 private:
  void free_names() {
    std::free(set_.filename);
    std::free(set_.groupname);
  }
  ISMRMRD_Dataset set_{};
};

/// What is wanted of one acquisition; the trajectory stays in the file.
struct Record {
  std::uint8_t head[kHeadBytes];
  hvl_t data;
};

class Reader {
 public:
  Reader(const std::string& path, const std::string& group) {
    const Quiet quiet;
    file_ = std::make_unique<File>(path, group, false);
    // Read here: libismrmrd's own call takes a missing header and an unreadable one for the same.
    std::unique_ptr<char, void (*)(void*)> text(ismrmrd_read_header(file_->get()), std::free);
    if (!text)
      throw std::runtime_error("no header in the group \"" + group + "\": " + library_reason());
    header_ = text.get();
    open_data(group);
  }

  ~Reader() {
    const Quiet quiet;
    data_.reset();
    head_type_.reset();
    record_type_.reset();
    file_.reset();
  }

  const std::string& header() const { return header_; }
  std::size_t size() const { return size_; }

  Bytes heads(std::size_t first, std::size_t count) const {
    check_range(first, count);
    Bytes heads({count, kHeadBytes});
    std::uint8_t* to = heads.mutable_data();
    {
      const py::gil_scoped_release release;
      const Quiet quiet;
      read_into(first, count, *head_type_, to);
    }
    return heads;
  }

  py::tuple read(std::size_t first, std::size_t count) const {
    check_range(first, count);
    std::vector<Record> records(count);
    {
      const py::gil_scoped_release release;
      const Quiet quiet;
      read_into(first, count, *record_type_, records.data());
    }
    // From here on the samples belong to us, allocated by HDF5 with malloc.
    const std::unique_ptr<std::vector<Record>, void (*)(std::vector<Record>*)> owner(&records,
                                                                                     free_samples);
    return py::make_tuple(heads_of(records), samples_of(records, first));
  }

 private:
  static void free_samples(std::vector<Record>* records) {
    for (Record& r : *records) std::free(r.data.p);
  }

  void open_data(const std::string& group) {
    const std::string name = "/" + group + "/data";
    if (H5Lexists((*file_)->fileid, name.c_str(), H5P_DEFAULT) <= 0)
      throw std::runtime_error("no acquisitions in the group \"" + group + "\"");
    data_ =
        std::make_unique<Handle>(H5Dopen2((*file_)->fileid, name.c_str(), H5P_DEFAULT), H5Dclose);
    const Handle space(H5Dget_space(*data_), H5Sclose), type(H5Dget_type(*data_), H5Tclose);
    const hssize_t points = H5Sget_simple_extent_npoints(space);
    size_ = points < 0 ? 0 : static_cast<std::size_t>(points);
    const Handle head = packed_head(type);
    head_type_ = std::make_unique<Handle>(H5Tcreate(H5T_COMPOUND, kHeadBytes), H5Tclose);
    check(H5Tinsert(*head_type_, "head", 0, head));
    const Handle samples(H5Tvlen_create(H5T_NATIVE_FLOAT), H5Tclose);
    record_type_ = std::make_unique<Handle>(H5Tcreate(H5T_COMPOUND, sizeof(Record)), H5Tclose);
    check(H5Tinsert(*record_type_, "head", offsetof(Record, head), head));
    check(H5Tinsert(*record_type_, "data", offsetof(Record, data), samples));
  }

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

  void read_into(std::size_t first, std::size_t count, hid_t type, void* to) const {
    if (count == 0) return;
    const hsize_t start = first, n = count;
    const Handle space(H5Dget_space(*data_), H5Sclose);
    check(H5Sselect_hyperslab(space, H5S_SELECT_SET, &start, nullptr, &n, nullptr));
    const Handle memory(H5Screate_simple(1, &n, nullptr), H5Sclose);
    check(H5Dread(*data_, type, memory, space, H5P_DEFAULT, to));
  }

  static Bytes heads_of(const std::vector<Record>& records) {
    Bytes heads({records.size(), kHeadBytes});
    std::uint8_t* to = heads.mutable_data();
    for (std::size_t i = 0; i < records.size(); ++i)
      std::memcpy(to + i * kHeadBytes, records[i].head, kHeadBytes);
    return heads;
  }

  /// One array (sample, coil) per acquisition.
  static py::list samples_of(const std::vector<Record>& records, std::size_t first) {
    py::list list(records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
      ISMRMRD_AcquisitionHeader head;
      std::memcpy(&head, records[i].head, kHeadBytes);
      const std::size_t samples = head.number_of_samples, coils = head.active_channels;
      if (records[i].data.len != 2 * samples * coils)
        throw std::runtime_error("acquisition " + std::to_string(first + i) + " has " +
                                 std::to_string(records[i].data.len / 2) +
                                 " values, its header says " + std::to_string(samples) +
                                 " samples of " + std::to_string(coils) + " coils");
      Samples array({samples, coils});
      if (records[i].data.len > 0)
        std::memcpy(static_cast<void*>(array.mutable_data()), records[i].data.p,
                    records[i].data.len * sizeof(float));
      list[i] = array;
    }
    return list;
  }

  std::unique_ptr<File> file_;
  std::unique_ptr<Handle> data_, head_type_, record_type_;
  std::string header_;
  std::size_t size_ = 0;
};

class Writer {
 public:
  Writer(const std::string& path, const std::string& group, const std::string& header) {
    const Quiet quiet;
    file_ = std::make_unique<File>(path, group, true);
    if (ismrmrd_write_header(file_->get(), header.c_str()) != ISMRMRD_NOERROR)
      throw std::runtime_error(library_reason());
  }

  ~Writer() { close(); }

  void close() {
    const Quiet quiet;
    file_.reset();
  }

  /// Samples (sample, coil); their numbers replace those of the header.
  void append(const Bytes& head, const Samples& samples) {
    if (!file_) throw std::runtime_error("the file has been closed");
    if (head.size() != static_cast<py::ssize_t>(kHeadBytes) || samples.ndim() != 2)
      throw py::value_error("expected a header of 340 bytes and samples (sample, coil)");
    ISMRMRD_Acquisition acquisition{};
    std::memcpy(&acquisition.head, head.data(), kHeadBytes);
    acquisition.head.number_of_samples = static_cast<std::uint16_t>(samples.shape(0));
    acquisition.head.active_channels = static_cast<std::uint16_t>(samples.shape(1));
    acquisition.head.available_channels = acquisition.head.active_channels;
    acquisition.head.trajectory_dimensions = 0;
    acquisition.data = const_cast<complex_float_t*>(samples.data());  // read only
    const py::gil_scoped_release release;
    const Quiet quiet;
    if (ismrmrd_append_acquisition(file_->get(), &acquisition) != ISMRMRD_NOERROR)
      throw std::runtime_error(library_reason());
  }

 private:
  std::unique_ptr<File> file_;
};

void ignore_error(const char*, int, const char*, int, const char*) {}

}  // namespace

PYBIND11_MODULE(_raw, m) {
  ismrmrd_set_error_handler(ignore_error);
  py::class_<Reader>(m, "Reader")
      .def(py::init<const std::string&, const std::string&>(), py::arg("path"), py::arg("group"))
      .def_property_readonly("header", [](const Reader& r) { return py::bytes(r.header()); })
      .def("__len__", &Reader::size)
      .def("heads", &Reader::heads, py::arg("first"), py::arg("count"))
      .def("read", &Reader::read, py::arg("first"), py::arg("count"));
  py::class_<Writer>(m, "Writer")
      .def(py::init<const std::string&, const std::string&, const std::string&>(), py::arg("path"),
           py::arg("group"), py::arg("header"))
      .def("append", &Writer::append, py::arg("head"), py::arg("samples"))
      .def("close", &Writer::close);
}
