#include "linux/NftMss.h"

#include <nftables/libnftables.h>

#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "linux/SafeName.h"

namespace Konet {
namespace {

using Json = nlohmann::json;

// One libnftables context, made in the calling thread's namespace (its netlink socket is
// opened there), with output and errors kept in buffers.
class NftContext {
public:
   NftContext() : ctx_(nft_ctx_new(NFT_CTX_DEFAULT), &nft_ctx_free) {
      if (!ctx_) return;
      nft_ctx_buffer_output(ctx_.get());
      nft_ctx_buffer_error(ctx_.get());
   }
   // 0, or an errno with the failure's text in `error`.
   int run(std::string const& commands, unsigned outputFlags, std::string* error) {
      if (!ctx_) {
         if (error) *error = "cannot create an nftables context";
         return ENOMEM;
      }
      nft_ctx_output_set_flags(ctx_.get(), outputFlags);
      errno = 0;
      if (nft_run_cmd_from_buffer(ctx_.get(), commands.c_str()) == 0) return 0;
      int err = errno ? errno : EIO;
      if (error) {
         std::string text = nft_ctx_get_error_buffer(ctx_.get());
         auto eol = text.find('\n');
         *error = eol == std::string::npos ? text : text.substr(0, eol);
      }
      return err;
   }
   char const* output() const { return nft_ctx_get_output_buffer(ctx_.get()); }

private:
   std::unique_ptr<nft_ctx, void (*)(nft_ctx*)> ctx_;
};

// A rule of the agent's chain as a clamp: its device, its direction and its MSS. False for
// a rule of another shape.
bool parseRule(Json const& rule, std::string* dev, bool* ingress, uint16_t* mss) {
   auto const& expr = rule.value("expr", Json::array());
   if (!expr.is_array() || expr.empty()) return false;
   auto const& first = expr.front();
   if (!first.contains("match")) return false;
   auto const& m = first["match"];
   auto key = m.value("left", Json::object()).value("meta", Json::object()).value("key", "");
   if ((key != "iifname" && key != "oifname") || !m.value("right", Json()).is_string()) {
      return false;
   }
   *dev = m["right"].get<std::string>();
   *ingress = key == "iifname";
   *mss = 0;
   for (auto const& e : expr) {
      if (e.contains("mangle") && e["mangle"].value("value", Json()).is_number_unsigned()) {
         *mss = e["mangle"]["value"].get<uint16_t>();
      }
   }
   return true;
}

// The agent's rules, each with its handle.
struct HeldRule {
   std::string dev;
   bool ingress = false;
   uint16_t mss = 0;
   uint64_t handle = 0;
};

int heldRules(NftContext& nft, std::vector<HeldRule>* out, std::string* error) {
   // The whole inet family: listing a table that is not there would be an error.
   if (int err = nft.run("list ruleset inet", NFT_CTX_OUTPUT_JSON | NFT_CTX_OUTPUT_HANDLE, error)) {
      return err;
   }
   Json doc = Json::parse(nft.output(), nullptr, false);
   if (doc.is_discarded() || !doc.contains("nftables")) {
      if (error) *error = "nftables listed its ruleset in a form not understood";
      return EPROTO;
   }
   for (auto const& item : doc["nftables"]) {
      if (!item.contains("rule")) continue;
      auto const& rule = item["rule"];
      if (rule.value("table", "") != kMssTable || rule.value("chain", "") != kMssChain) continue;
      HeldRule r;
      if (!parseRule(rule, &r.dev, &r.ingress, &r.mss)) continue;
      r.handle = rule.value("handle", uint64_t(0));
      out->push_back(std::move(r));
   }
   return 0;
}

std::string clampRule(char const* match, std::string const& dev, uint16_t mss) {
   auto n = std::to_string(mss);
   return std::string("add rule inet ") + kMssTable + " " + kMssChain + " " + match + " \"" + dev +
          "\" tcp flags syn tcp option maxseg size > " + n + " tcp option maxseg size set " + n +
          "\n";
}

}  // namespace

int mssClampDump(std::map<std::string, MssClamp>* out, std::string* error) {
   NftContext nft;
   std::vector<HeldRule> rules;
   if (int err = heldRules(nft, &rules, error)) return err;
   for (auto const& r : rules) {
      auto& c = (*out)[r.dev];
      (r.ingress ? c.ingress : c.egress) = r.mss;
   }
   return 0;
}

int mssClampSet(std::string const& dev, MssClamp clamp, std::string* error) {
   // The name goes inside a quoted nftables string: it may not end it.
   if (checkDeviceName(dev) || dev.find_first_of("\"\\") != std::string::npos) {
      if (error) *error = "unusable device name";
      return EINVAL;
   }
   NftContext nft;
   std::vector<HeldRule> rules;
   if (int err = heldRules(nft, &rules, error)) return err;
   std::string batch;
   for (auto const& r : rules) {
      if (r.dev != dev) continue;
      batch += std::string("delete rule inet ") + kMssTable + " " + kMssChain + " handle " +
               std::to_string(r.handle) + "\n";
   }
   if (!clamp.none()) {
      batch = std::string("add table inet ") + kMssTable + "\nadd chain inet " + kMssTable + " " +
              kMssChain + " { type filter hook forward priority mangle; policy accept; }\n" + batch;
      if (clamp.ingress) batch += clampRule("iifname", dev, clamp.ingress);
      if (clamp.egress) batch += clampRule("oifname", dev, clamp.egress);
   }
   if (batch.empty()) return 0;
   return nft.run(batch, 0, error);
}

}  // namespace Konet
