#include "policys/JpegWriter.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>

extern "C" {
#include <jpeglib.h>
}

namespace vel::test {

std::uint8_t JpegWriter::At(int component, int x, int y) const {
  const int across = component == 0 ? 1 : lumaSampling[0];
  const int down = component == 0 ? 1 : lumaSampling[1];
  return static_cast<std::uint8_t>(40 + (component * 67 + x / across / 8 * 13 + y / down / 8 * 29) % 170);
}

std::vector<std::uint8_t> JpegWriter::Write() const {
  jpeg_error_mgr errors{};
  jpeg_compress_struct jpeg{};
  jpeg.err = jpeg_std_error(&errors);
  jpeg_create_compress(&jpeg);
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&jpeg, &bytes, &size);
  jpeg.image_width = static_cast<JDIMENSION>(width);
  jpeg.image_height = static_cast<JDIMENSION>(height);
  jpeg.input_components = grey ? 1 : 3;
  jpeg.in_color_space = grey ? JCS_GRAYSCALE : JCS_YCbCr;
  jpeg_set_defaults(&jpeg);
  // Every quantiser is 8: the coefficient of a flat block is its value - 128.
  std::array<unsigned, DCTSIZE2> quantisers{};
  quantisers.fill(8);
  for (int table = 0; table < 2; ++table) {
    jpeg_add_quant_table(&jpeg, table, quantisers.data(), 100, TRUE);
    jpeg.dc_huff_tbl_ptrs[table]->sent_table = huffmanTables ? FALSE : TRUE;
    jpeg.ac_huff_tbl_ptrs[table]->sent_table = huffmanTables ? FALSE : TRUE;
  }
  jpeg.comp_info[0].h_samp_factor = grey ? 1 : lumaSampling[0];
  jpeg.comp_info[0].v_samp_factor = grey ? 1 : lumaSampling[1];
  jpeg.restart_interval = static_cast<unsigned>(restartInterval);
  jpeg_start_compress(&jpeg, FALSE);
  for (int y = 0; y < height; ++y) {
    std::vector<std::uint8_t> row;
    for (int i = 0; i < width * jpeg.input_components; ++i) {
      row.push_back(At(i % jpeg.input_components, i / jpeg.input_components, y));
    }
    JSAMPROW rows = row.data();
    jpeg_write_scanlines(&jpeg, &rows, 1);
  }
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  const std::unique_ptr<unsigned char, decltype(&std::free)> owned(bytes, &std::free);
  return {bytes, bytes + size};
}

std::vector<std::uint8_t> JpegWriter::Yuyv() const {
  std::vector<std::uint8_t> yuyv;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      yuyv.push_back(At(0, x, y));
      yuyv.push_back(At(x % 2 == 0 ? 1 : 2, x / 2 * 2, y));
    }
  }
  return yuyv;
}

}  // namespace vel::test
