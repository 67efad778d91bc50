#include <stdexcept>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/Platform.h"
#include "tools/kestrel-inspect/MappedImage.h"

namespace inspect {
namespace {

// The loader's image mapping of the file: laid out by section, never run.
class LoaderImage final : public MappedImage {
 public:
  explicit LoaderImage(const std::string& path) {
    const std::wstring widePath = platform::WideFromUtf8(path).value_or(L"");
    file_ = CreateFileW(widePath.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file_ == INVALID_HANDLE_VALUE) {
      throw std::runtime_error("cannot open " + path);
    }
    section_ = CreateFileMappingW(file_, nullptr, PAGE_READONLY | SEC_IMAGE, 0, 0, nullptr);
    if (section_ == nullptr) {
      Close();
      throw std::runtime_error("not an image the loader can map");
    }
    view_ = MapViewOfFile(section_, FILE_MAP_READ, 0, 0, 0);
    if (view_ == nullptr) {
      Close();
      throw std::runtime_error("the image could not be mapped");
    }
  }
  ~LoaderImage() override { Close(); }

  const void* base() const override { return view_; }

 private:
  void Close() {
    if (view_ != nullptr) {
      UnmapViewOfFile(view_);
    }
    if (section_ != nullptr) {
      CloseHandle(section_);
    }
    if (file_ != INVALID_HANDLE_VALUE) {
      CloseHandle(file_);
    }
  }

  HANDLE file_ = INVALID_HANDLE_VALUE;
  HANDLE section_ = nullptr;
  void* view_ = nullptr;
};

}  // namespace

std::unique_ptr<MappedImage> MappedImage::Map(const std::string& path) { return std::make_unique<LoaderImage>(path); }

}  // namespace inspect
