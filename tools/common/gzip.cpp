#include "tools/common/gzip.h"

#define ZLIB_CONST // for data that it only reads
#include <new>
#include <zlib.h>

void put_gzipped(std::ostream &out, std::string_view data) {
    constexpr int with_gzip_header = MAX_WBITS + 16; // of zlib's interface
    constexpr int default_memory = 8;
    constexpr size_t longest_piece = 1 << 20; // zlib counts in 32 bits
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, with_gzip_header, default_memory,
                     Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::bad_alloc();
    char packed[65536];
    do {
        const std::string_view piece = data.substr(0, longest_piece);
        data.remove_prefix(piece.size());
        stream.next_in = reinterpret_cast<const Bytef *>(piece.data());
        stream.avail_in = static_cast<uInt>(piece.size());
        do {
            stream.next_out = reinterpret_cast<Bytef *>(packed);
            stream.avail_out = sizeof packed;
            deflate(&stream, data.empty() ? Z_FINISH : Z_NO_FLUSH);
            out.write(packed, static_cast<std::streamsize>(sizeof packed - stream.avail_out));
        } while (stream.avail_out == 0);
    } while (!data.empty());
    deflateEnd(&stream);
}
