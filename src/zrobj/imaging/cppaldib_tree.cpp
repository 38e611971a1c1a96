// The colour trees behind COctTree and CHexTree: building with reduction, collapsing of single-child
// chains, the palette with its merges, and the mapping of an image onto the palette.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "zrobj/byteorder.h"
#include "zrobj/cppaldib.h"

namespace zr::palette_detail {

// A node: pixel count (or kInner / kMerged), channel sums, palette index, children, the next node
// of its level's reducible list (or of the free list), and the level it stands for. Nodes live in
// one pool and name each other by position; position 0 is "none". Counts and sums are 32-bit words
// as the node record has them: past 4 G they wrap, as that record's do.
template <unsigned kChannels>
struct Node {
  DWORD count;
  DWORD sum[kChannels];
  DWORD index;
  DWORD child[1u << kChannels];
  DWORD next;
  BYTE level;
};

template <unsigned kChannels>
struct TreeState {
  using Tree = ColourTree<kChannels>;
  static constexpr unsigned kChildren = 1u << kChannels;

  std::vector<Node<kChannels>> nodes = std::vector<Node<kChannels>>(1);  // position 0 unused
  DWORD free_head = 0;
  DWORD root = 0;
  std::array<DWORD, Tree::kLevels> reducible{};  // inner nodes of levels 0..7, newest first
  unsigned long leaf_count = 0;
  std::vector<DWORD> leaves;                     // tree order, after Palettize
  std::vector<RGBQUAD> palette;
  CPPalDib result;

  Node<kChannels>& at(DWORD n) { return nodes[n]; }

  // Zero-filled node standing for `level`: a leaf at level 8, else an inner node pushed on its
  // level's list. Throws std::bad_alloc when the pool cannot grow.
  DWORD Create(unsigned level) {
    DWORD n = free_head;
    if (n != 0) {
      free_head = nodes[n].next;
    } else {
      nodes.emplace_back();
      n = static_cast<DWORD>(nodes.size() - 1);
    }
    Node<kChannels>& node = nodes[n];
    node = Node<kChannels>{};
    node.level = static_cast<BYTE>(level);
    if (level >= Tree::kLevels) {
      ++leaf_count;
      return n;
    }
    node.count = Tree::kInner;
    node.next = reducible[level];
    reducible[level] = n;
    return n;
  }

  void Release(DWORD n) {
    if (nodes[n].count != Tree::kInner && nodes[n].count != Tree::kMerged) --leaf_count;
    nodes[n].next = free_head;
    free_head = n;
  }

  // Adds the counts and sums of the subtree below `n` into `into` and deletes the subtree.
  void Fold(DWORD n, Node<kChannels>& into) {
    Node<kChannels>& node = nodes[n];
    if (node.count == Tree::kInner) {
      for (DWORD& c : node.child) {
        if (c != 0) Fold(c, into);
        c = 0;
      }
    } else {
      into.count += node.count;
      for (unsigned k = 0; k < kChannels; ++k) into.sum[k] += node.sum[k];
    }
    Release(n);
  }

  static unsigned Slot(const BYTE* channels, unsigned level) {
    const unsigned bit = 7 - level;
    unsigned slot = ((channels[0] >> bit) & 1u) << 2 | ((channels[1] >> bit) & 1u) << 1 | ((channels[2] >> bit) & 1u);
    if constexpr (kChannels == 4) slot |= ((channels[3] >> bit) & 1u) << 3;
    return slot;
  }

  // The first node that is not inner along the colour's path from `n`, or 0 where the path ends;
  // `below` stops the walk at the first node standing for that level or deeper.
  DWORD FindFrom(DWORD n, const BYTE* channels, unsigned below = Tree::kLevels) const {
    while (n != 0 && nodes[n].count == Tree::kInner && nodes[n].level < below) {
      n = nodes[n].child[Slot(channels, nodes[n].level)];
    }
    return n;
  }
  DWORD Find(const BYTE* channels) const { return FindFrom(root, channels); }

  // A table of where each colour's walk stands after the levels its top kShortcutBits bits of every
  // channel decide, so that mapping a whole image descends only the rest.
  static constexpr unsigned kShortcutBits = kChannels == 3 ? 5 : 4;
  static unsigned ShortcutKey(const BYTE* channels) {
    unsigned key = 0;
    for (unsigned k = 0; k < kChannels; ++k) key = key << kShortcutBits | channels[k] >> (8 - kShortcutBits);
    return key;
  }
  std::vector<DWORD> Shortcuts() const {
    std::vector<DWORD> table(1u << (kShortcutBits * kChannels));
    for (unsigned key = 0; key < table.size(); ++key) {
      BYTE channels[kChannels];
      for (unsigned k = 0; k < kChannels; ++k) {
        const unsigned shift = kShortcutBits * (kChannels - 1 - k);
        channels[k] = static_cast<BYTE>(((key >> shift) & ((1u << kShortcutBits) - 1)) << (8 - kShortcutBits));
      }
      table[key] = FindFrom(root, channels, kShortcutBits);
    }
    return table;
  }

  void AddColor(const BYTE* channels) {
    if (root == 0) root = Create(0);
    DWORD n = root;
    while (nodes[n].count == Tree::kInner) {
      const unsigned slot = Slot(channels, nodes[n].level);
      DWORD c = nodes[n].child[slot];
      if (c == 0) {
        c = Create(nodes[n].level + 1u);  // may move the pool: index again
        nodes[n].child[slot] = c;
      }
      n = c;
    }
    Node<kChannels>& leaf = nodes[n];
    ++leaf.count;
    for (unsigned k = 0; k < kChannels; ++k) leaf.sum[k] += channels[k];
  }

  // 0 when no inner node is left to reduce.
  bool Reduce() {
    for (unsigned level = Tree::kLevels; level-- > 0;) {
      const DWORD n = reducible[level];
      if (n == 0) continue;
      reducible[level] = nodes[n].next;
      Node<kChannels> total{};
      for (DWORD& c : nodes[n].child) {
        if (c != 0) Fold(c, total);
        c = 0;
      }
      Node<kChannels>& node = nodes[n];
      node.count = total.count;
      std::copy(std::begin(total.sum), std::end(total.sum), node.sum);
      node.next = 0;
      ++leaf_count;
      return true;
    }
    return false;
  }

  // Collapses every inner node that has a single child with that child, then goes on below.
  void Optimize(DWORD n) {
    for (;;) {
      Node<kChannels>& node = nodes[n];
      if (node.count != Tree::kInner) return;
      const auto children = std::count_if(std::begin(node.child), std::end(node.child), [](DWORD c) { return c != 0; });
      if (children != 1) break;
      const DWORD only = *std::find_if(std::begin(node.child), std::end(node.child), [](DWORD c) { return c != 0; });
      const Node<kChannels> child = nodes[only];
      nodes[only].count = Tree::kInner;  // the node lives on in its parent: no leaf is lost
      Release(only);
      node = child;
      node.next = 0;
    }
    for (DWORD c : nodes[n].child) {
      if (c != 0) Optimize(c);
    }
  }

  void CollectLeaves(DWORD n) {
    if (nodes[n].count != Tree::kInner) {
      nodes[n].index = static_cast<DWORD>(leaves.size());
      leaves.push_back(n);
      return;
    }
    for (DWORD c : nodes[n].child) {
      if (c != 0) CollectLeaves(c);
    }
  }

  // The smallest leaf (ties to the later) and the one that was smallest before it, in one scan.
  std::pair<size_t, size_t> PickMerge() const {
    size_t smallest = 0, runner_up = 0;
    for (size_t i = 1; i < leaves.size(); ++i) {
      if (nodes[leaves[i]].count <= nodes[leaves[smallest]].count) {
        runner_up = smallest;
        smallest = i;
      }
    }
    return {smallest, runner_up};
  }

  void Merge(size_t from, size_t into, std::vector<DWORD>& target) {
    Node<kChannels>& a = nodes[leaves[from]];
    Node<kChannels>& b = nodes[leaves[into]];
    if (b.count != Tree::kMerged) b.count += a.count;
    for (unsigned k = 0; k < kChannels; ++k) b.sum[k] += a.sum[k];
    a.count = Tree::kMerged;
    for (size_t j = from; j < target.size(); ++j) {
      if (target[j] == from) target[j] = static_cast<DWORD>(into);
    }
  }

  RGBQUAD Average(const Node<kChannels>& leaf) const {
    const DWORD count = leaf.count ? leaf.count : 1;
    RGBQUAD q;
    q.rgbRed = static_cast<BYTE>(leaf.sum[0] / count);
    q.rgbGreen = static_cast<BYTE>(leaf.sum[1] / count);
    q.rgbBlue = static_cast<BYTE>(leaf.sum[2] / count);
    q.rgbReserved = kChannels == 4 ? static_cast<BYTE>(leaf.sum[3] / count) : 255;
    return q;
  }

  // Live leaves take the next entries in leaf order; a merged leaf takes the entry of the leaf it
  // was merged into (following further merges; a leaf merged into itself keeps its position).
  void BuildPalette(const std::vector<DWORD>& target) {
    palette.clear();
    for (DWORD n : leaves) {
      if (nodes[n].count == Tree::kMerged) continue;
      nodes[n].index = static_cast<DWORD>(palette.size());
      palette.push_back(Average(nodes[n]));
    }
    for (size_t i = 0; i < leaves.size(); ++i) {
      size_t t = i;
      for (size_t steps = 0; steps < leaves.size() && nodes[leaves[t]].count == Tree::kMerged && target[t] != t; ++steps) {
        t = target[t];
      }
      nodes[leaves[i]].index = nodes[leaves[t]].count == Tree::kMerged ? static_cast<DWORD>(t) : nodes[leaves[t]].index;
    }
  }

  bool Palettize(unsigned long colours) {
    leaves.clear();
    palette.clear();
    if (root == 0 || colours == 0) return false;
    CollectLeaves(root);
    if (leaves.empty()) return false;
    std::vector<DWORD> target(leaves.size());
    for (size_t i = 0; i < target.size(); ++i) target[i] = static_cast<DWORD>(i);
    for (size_t live = leaves.size(); live > colours; --live) {
      const auto [smallest, runner_up] = PickMerge();
      Merge(smallest, runner_up, target);
    }
    BuildPalette(target);
    return true;
  }
};

namespace {

// The channels of a source pixel: R, G, B from the third, second and first byte; alpha from the
// fourth byte of a 32-bit pixel, opaque for a 24-bit one.
template <unsigned kChannels>
void PixelChannels(const BYTE* pixel, unsigned bytes, BYTE* channels) {
  channels[0] = pixel[2];
  channels[1] = pixel[1];
  channels[2] = pixel[0];
  if constexpr (kChannels == 4) channels[3] = bytes == 4 ? pixel[3] : 255;
}

std::uint64_t Magnitude(long v) {
  return v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
}

// Calls visit(channels, pixel number) for every pixel of a 24- or 32-bit image, rows as stored.
template <unsigned kChannels, class Visit>
bool ForEachPixel(const CPTCDib& source, Visit visit) {
  const unsigned long bits = source.GetBitCount();
  const BYTE* rows = source.GetBits();
  if (rows == nullptr || (bits != 24 && bits != 32)) return false;
  const std::uint64_t w = Magnitude(source.GetWidth()), h = Magnitude(source.GetHeight());
  const unsigned bytes = bits / 8;
  const unsigned long stride = CPTCDib::GetStride(source.GetWidth(), bits);
  BYTE channels[kChannels];
  std::uint64_t number = 0;
  for (std::uint64_t y = 0; y < h; ++y) {
    const BYTE* pixel = rows + y * stride;
    for (std::uint64_t x = 0; x < w; ++x, pixel += bytes) {
      PixelChannels<kChannels>(pixel, bytes, channels);
      if (!visit(channels, number++)) return false;
    }
  }
  return true;
}

void StoreIndex(BYTE* bits, unsigned index_bytes, std::uint64_t at, DWORD index) {
  if (index_bytes == 2) {
    StoreLE16(bits + 2 * at, static_cast<WORD>(index));
  } else {
    bits[at] = static_cast<BYTE>(index);
  }
}

template <unsigned kChannels>
unsigned Distance(const BYTE* channels, const RGBQUAD& q) {
  const int d[4] = {channels[0] - q.rgbRed, channels[1] - q.rgbGreen, channels[2] - q.rgbBlue,
                    kChannels == 4 ? channels[3] - q.rgbReserved : 0};
  return static_cast<unsigned>(d[0] * d[0] + d[1] * d[1] + d[2] * d[2] + d[3] * d[3]);
}

// Nearest palette entries with a direct-mapped cache by colour, since images repeat colours.
template <unsigned kChannels>
class NearestEntry {
 public:
  NearestEntry(const RGBQUAD* palette, unsigned long colours) : palette_(palette), colours_(colours) {}

  DWORD operator()(const BYTE* channels) {
    DWORD key = 0;
    std::memcpy(&key, channels, kChannels);
    Slot& slot = cache_[(key * 2654435761u) >> (32 - kCacheBits)];
    if (slot.valid && slot.key == key) return slot.index;
    DWORD best = 0;
    unsigned best_distance = ~0u;
    for (DWORD i = 0; i < colours_; ++i) {
      const unsigned d = Distance<kChannels>(channels, palette_[i]);
      if (d < best_distance) best = i, best_distance = d;
    }
    slot = {key, best, true};
    return best;
  }

 private:
  static constexpr unsigned kCacheBits = 12;
  struct Slot {
    DWORD key;
    DWORD index;
    bool valid;
  };
  const RGBQUAD* palette_;
  unsigned long colours_;
  std::vector<Slot> cache_ = std::vector<Slot>(1u << kCacheBits);
};

}  // namespace

template <unsigned kChannels>
ColourTree<kChannels>::ColourTree() : state_(new TreeState<kChannels>) {}

template <unsigned kChannels>
ColourTree<kChannels>::~ColourTree() {
  delete state_;
}

template <unsigned kChannels>
void ColourTree<kChannels>::Free() {
  TreeState<kChannels> fresh;
  std::swap(state_->nodes, fresh.nodes);
  std::swap(state_->leaves, fresh.leaves);
  std::swap(state_->palette, fresh.palette);
  state_->free_head = state_->root = 0;
  state_->reducible.fill(0);
  state_->leaf_count = 0;
  state_->result.Free();
}

template <unsigned kChannels>
int ColourTree<kChannels>::AddColorChannels(const BYTE* channels) {
  try {
    state_->AddColor(channels);
    return 1;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

template <unsigned kChannels>
void ColourTree<kChannels>::Reduce() {
  state_->Reduce();
}

template <unsigned kChannels>
void ColourTree<kChannels>::Optimize() {
  if (state_->root != 0) state_->Optimize(state_->root);
  // Collapsed nodes no longer stand for their depth: nothing is reduced after this.
  state_->reducible.fill(0);
}

template <unsigned kChannels>
int ColourTree<kChannels>::Palettize(unsigned long colours) {
  try {
    return state_->Palettize(colours) ? 1 : 0;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

template <unsigned kChannels>
DWORD ColourTree<kChannels>::Lookup(const BYTE* channels) const {
  const DWORD n = state_->Find(channels);
  return n == 0 ? kNoIndex : state_->nodes[n].index;
}

template <unsigned kChannels>
unsigned long ColourTree<kChannels>::GetLeafCount() const {
  return state_->leaf_count;
}

template <unsigned kChannels>
unsigned long ColourTree<kChannels>::GetPaletteSize() const {
  return static_cast<unsigned long>(state_->palette.size());
}

template <unsigned kChannels>
const RGBQUAD* ColourTree<kChannels>::GetPalette() const {
  return state_->palette.empty() ? nullptr : state_->palette.data();
}

template <unsigned kChannels>
CPPalDib ColourTree<kChannels>::GetDIB() const {
  return state_->result;
}

template <unsigned kChannels>
int ColourTree<kChannels>::SetDIB(const CPTCDib& source, unsigned long colours) {
  Free();
  if (colours < 2 || colours > PALDIB_MAX_COLOURS) return 0;
  TreeState<kChannels>& s = *state_;
  try {
    const unsigned long budget = std::max(colours, 8ul);
    const bool built = ForEachPixel<kChannels>(source, [&](const BYTE* channels, std::uint64_t) {
      s.AddColor(channels);
      while (s.leaf_count > budget && s.Reduce()) {
      }
      return true;
    });
    if (!built) return 0;
    while (s.leaf_count > colours && s.Reduce()) {
    }
    Optimize();
    if (!s.Palettize(colours)) return 0;
  } catch (const std::bad_alloc&) {
    Free();
    return 0;
  }
  CPPalDib& out = s.result;
  const unsigned long entries = static_cast<unsigned long>(s.palette.size());
  if (!out.Alloc(source.GetWidth(), source.GetHeight(), entries, source.GetBitCount())) return 0;
  std::memcpy(out.GetPalette(), s.palette.data(), 4 * entries);
  BYTE* bits = out.GetBits();
  const unsigned index_bytes = out.GetIndexBytes();
  std::vector<DWORD> shortcuts;
  try {
    shortcuts = s.Shortcuts();
  } catch (const std::bad_alloc&) {
    Free();
    return 0;
  }
  ForEachPixel<kChannels>(source, [&](const BYTE* channels, std::uint64_t at) {
    const DWORD n = s.FindFrom(shortcuts[s.ShortcutKey(channels)], channels);
    StoreIndex(bits, index_bytes, at, n == 0 ? kNoIndex : s.nodes[n].index);
    return true;
  });
  return 1;
}

template <unsigned kChannels>
int ColourTree<kChannels>::SetDIB(const CPTCDib& source, unsigned long colours, const RGBQUAD* palette) {
  Free();
  if (palette == nullptr || colours == 0 || colours > PALDIB_MAX_COLOURS) return 0;
  const unsigned long bits_per_pixel = source.GetBitCount();
  if (source.GetBits() == nullptr || (bits_per_pixel != 24 && bits_per_pixel != 32)) return 0;
  CPPalDib& out = state_->result;
  if (!out.Alloc(source.GetWidth(), source.GetHeight(), colours, bits_per_pixel)) return 0;
  std::memcpy(out.GetPalette(), palette, 4 * colours);
  state_->palette.assign(palette, palette + colours);
  BYTE* bits = out.GetBits();
  const unsigned index_bytes = out.GetIndexBytes();
  try {
    NearestEntry<kChannels> nearest(palette, colours);
    ForEachPixel<kChannels>(source, [&](const BYTE* channels, std::uint64_t at) {
      StoreIndex(bits, index_bytes, at, nearest(channels));
      return true;
    });
  } catch (const std::bad_alloc&) {
    Free();
    return 0;
  }
  return 1;
}

template class ColourTree<3>;
template class ColourTree<4>;

}  // namespace zr::palette_detail
