#include "H264Stream.h"

#include <memory>

#include "policys/FfmpegPtr.h"

namespace vel::test {

std::vector<ParsedPicture> ParseH264(std::span<const std::uint8_t> stream) {
  const CodecContextPtr context(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264)));
  const std::unique_ptr<AVCodecParserContext, decltype(&av_parser_close)> parser(av_parser_init(AV_CODEC_ID_H264),
                                                                                 &av_parser_close);
  std::vector<std::uint8_t> padded(stream.begin(), stream.end());
  padded.resize(stream.size() + AV_INPUT_BUFFER_PADDING_SIZE);
  std::vector<ParsedPicture> pictures;
  std::size_t at = 0;
  while (true) {
    std::uint8_t* unit = nullptr;
    int size = 0;
    const int used = av_parser_parse2(parser.get(), context.get(), &unit, &size, padded.data() + at,
                                      static_cast<int>(stream.size() - at), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    at += static_cast<std::size_t>(used);
    if (size > 0) {
      pictures.push_back({parser->pict_type, parser->key_frame == 1, parser->width, parser->height});
    } else if (used == 0) {
      return pictures;
    }
  }
}

std::vector<int> NalTypes(std::span<const std::uint8_t> unit) {
  std::vector<int> types;
  for (std::size_t i = 0; i + 3 < unit.size(); ++i) {
    if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1) {
      types.push_back(unit[i + 3] & 0x1F);
    }
  }
  return types;
}

}  // namespace vel::test
