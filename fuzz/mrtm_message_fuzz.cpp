// Any bytes as a message to the multicast route table manager, and as its answer to a client: nothing is read beyond
// them, and what was believed is written back as the same bytes.
#include "fuzz/support/fuzz.h"
#include "zel/mrtm.h"

namespace {

using zel::fuzz::require;

// A list that was believed says the same plain, compressed, and plain again.
void requireSameMap(const std::uint8_t *list) {
    std::uint32_t map[IFM_IFLIST_MAP_WORDS], again[IFM_IFLIST_MAP_WORDS];
    std::uint8_t copy[IFM_IFLIST_BYTES];
    memcpy(copy, list, sizeof copy);
    require(ifmMapFromBytes(copy, map) == IFM_OK && ifmUncompressIFList(copy) == IFM_OK);
    const int used = ifmCompressIFList(copy);
    require(used >= 4 && used <= IFM_IFLIST_BYTES && used == ifmCompressIFList(copy));
    require(ifmMapFromBytes(copy, again) == IFM_OK && memcmp(map, again, sizeof map) == 0);
}

void readBatch(const std::uint8_t *message, int length) {
    zelMrtmBatch batch;
    if (zelMrtmParseBatch(message, length, &batch) != 0) return;
    zelMrtmRoute route;
    std::uint32_t operation, handle, records = 0;
    require(zelMrtmParseHandle(message, length, &handle) == 0 && handle == batch.handle);
    for (int more; (more = zelMrtmNextRoute(&batch, &operation, &route)) != 0; ++records) {
        std::uint8_t written[ZEL_MRTM_ROUTE_LENGTH_V6];
        require(zelMrtmWriteRoute(batch.family, &route, written) == static_cast<int>(batch.recordLength));
        require(memcmp(written, batch.record, batch.recordLength) == 0);
        require(batch.record + batch.recordLength <= message + length);
        if (more == 1 && operation != ZEL_MRTM_DELETE)
            for (const auto &list : route.lists) requireSameMap(list);
    }
    require(records == batch.routes);
}

void readQuery(const std::uint8_t *message, int length) {
    zelMrtmQuery query;
    if (zelMrtmParseQuery(message, length, &query) != 0) return;
    std::uint8_t answer[ZEL_MRTM_QUERY_ANSWER_LENGTH] = {};
    const zelMrtmRoute route{};
    std::uint32_t bitmap[IFM_IFLIST_MAP_WORDS];
    require(zelMrtmAnswerQuery(answer, &query, &route) == ZEL_MRTM_QUERY_ANSWER_LENGTH);
    require(mrtmFetchBitmapFromQueryResponse(answer, bitmap) == 0);
    require(zelMrtmAnswerQuery(answer, &query, nullptr) == 64);
}

}  // namespace

// The first byte, when not 0, makes the type one of ours; what follows lies in a block of exactly its size.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1 || size > 10000) return 0;
    const auto message =
        zel::fuzz::messageOf(data, size, data[0] != 0 ? (data[0] < 0x80 ? 0x3d00u : 0x3c00u) + data[0] : 0);
    const int bytes = static_cast<int>(size - 1);
    zelMrtmRegistration registration;
    zelMrtmRequest request;
    std::uint32_t begun[IFM_VLAN_BITMAP_WORDS], ended[IFM_VLAN_BITMAP_WORDS], handle, bitmap[IFM_IFLIST_MAP_WORDS];
    if (zelMrtmParseRegistration(message.get(), bytes, &registration) == 0)
        require(strnlen(registration.name, sizeof registration.name) < sizeof registration.name);
    zelMrtmParseRequest(message.get(), bytes, &request);
    zelMrtmParseClear(message.get(), bytes, &request);
    zelMrtmParseSpanVlans(message.get(), bytes, begun, ended);
    zelMrtmReadRegistrationAnswer(message.get(), bytes, &handle);
    readBatch(message.get(), bytes);
    readQuery(message.get(), bytes);
    if (size > ZEL_MRTM_QUERY_ANSWER_LENGTH) mrtmFetchBitmapFromQueryResponse(message.get(), bitmap);
    return 0;
}
