// The rules of an nftables chain in the calling thread's namespace, as nftables prints them
// (one line each, without handles), read through libnftables: what the kernel holds.
#pragma once

#include <nftables/libnftables.h>

#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace KonetTest {

// Empty when the chain is not there.
inline std::set<std::string> nftRules(std::string const& family, std::string const& table,
                                      std::string const& chain) {
   std::unique_ptr<nft_ctx, void (*)(nft_ctx*)> ctx(nft_ctx_new(NFT_CTX_DEFAULT), &nft_ctx_free);
   nft_ctx_buffer_output(ctx.get());
   nft_ctx_buffer_error(ctx.get());
   std::string cmd = "list chain " + family + " " + table + " " + chain;
   std::set<std::string> rules;
   if (nft_run_cmd_from_buffer(ctx.get(), cmd.c_str()) != 0) return rules;
   std::istringstream in(nft_ctx_get_output_buffer(ctx.get()));
   std::string line;
   while (std::getline(in, line)) {
      auto b = line.find_first_not_of(" \t");
      if (b == std::string::npos) continue;
      line = line.substr(b);
      if (line.starts_with("table ") || line.starts_with("chain ") || line.starts_with("type ") ||
          line == "}") {
         continue;
      }
      rules.insert(line);
   }
   return rules;
}

}  // namespace KonetTest
