// EdgeBreaker encoder: any triangle list in, the decoder's code stream and vertex order out.
//
// The decoder grows each submesh from one boundary loop, so it can only produce topological discs
// (and spheres, from a loop of two vertices: one edge seen from both sides). The encoder therefore
// first turns every connected component into such a surface:
//   1. Corners that repeat a vertex within a triangle get a vertex of their own.
//   2. Half-edges u->v are paired with half-edges v->u; an edge with more or fewer partners (three
//      triangles on an edge, or a flipped neighbour) stays open on the surplus sides.
//   3. Each vertex is split into its fans: the corners that are connected by paired edges around it.
//      Every vertex is then a disc or a half-disc, so pinched and non-manifold vertices come apart.
//   4. A component with holes or handles is cut open along a short cut graph: the edges that a
//      spanning tree of its triangles does not cross, with dangling branches trimmed. The tree is a
//      maximum spanning tree for loop lengths measured from the boundary (or a root vertex) along a
//      breadth-first tree, so the cuts that remain follow short paths. A closed component of genus 0
//      is opened along a single edge; a disc is left as it is.
//   5. After the cuts, vertices are split into fans again and each component has one boundary loop.
// The traversal then replays the decoder: it starts on the boundary loop, takes the triangle on the
// gate edge and names it by where its third vertex is (new, after the gate, before it, closing the
// loop, or elsewhere on the loop), exactly as the decoder will rebuild it. On a disc the third
// vertex of a triangle is always new or on the current loop, so the five codes always suffice.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "OzmCore/EdgeBreaker.h"

namespace EdgeBreaker {

namespace {

// Corner c of triangle c / 3; half-edge c runs from corner c's vertex to the next corner's.
inline int Next(int c) { return c % 3 == 2 ? c - 2 : c + 1; }
inline int Prev(int c) { return c % 3 == 0 ? c + 2 : c - 1; }

class BitWriter {
 public:
  explicit BitWriter(std::vector<uint8_t>* out) : m_out(out) {}
  void Put(EEdgeCode code) {
    static constexpr uint8_t kPattern[] = {0b0, 0b110, 0b101, 0b111, 0b1000, 0b1001};
    const int bits = CEdgeBreaker::BitsInCode(code);
    for (int b = bits - 1; b >= 0; --b) {
      if (m_used == 0) m_out->push_back(0);
      if ((kPattern[code] >> b) & 1) m_out->back() |= static_cast<uint8_t>(0x80 >> m_used);
      m_used = (m_used + 1) & 7;
    }
  }

 private:
  std::vector<uint8_t>* m_out;
  int m_used = 0;  // bits already written in the last byte
};

class Encoder {
 public:
  bool Run(const std::vector<WelmMeshFace>& faces, std::vector<int>* vertexOrder, std::vector<uint8_t>* bits);

 private:
  bool Load(const std::vector<WelmMeshFace>& faces);
  void PairHalfEdges();
  void SplitFans();
  void FindComponents();
  void BuildBoundaryLinks();
  void BuildVertexCorners();
  void CutToDisc(int component);
  void CutAlongTreeComplement(int component);
  bool Traverse(int component, std::vector<int>* vertexOrder, std::vector<EEdgeCode>* codes);

  int NewVertex(int origin) {
    m_origin.push_back(origin);
    return static_cast<int>(m_origin.size()) - 1;
  }
  int RotateNext(int c) const { return m_opp[c] < 0 ? -1 : Next(m_opp[c]); }  // next corner around the vertex
  int RotatePrev(int c) const { return m_opp[Prev(c)]; }                      // and the one before
  int Canonical(int h) const { return m_opp[h] < 0 ? h : std::min(h, m_opp[h]); }
  void Cut(int h) {
    const int o = m_opp[h];
    m_opp[h] = -1;
    if (o >= 0) m_opp[o] = -1;
  }
  template <typename Fn>
  void ForEachCorner(int component, Fn fn) const {
    for (int i = m_componentStart[component]; i < m_componentStart[component + 1]; ++i) {
      const int t = m_componentTriangles[i];
      fn(3 * t);
      fn(3 * t + 1);
      fn(3 * t + 2);
    }
  }

  int m_corners = 0;
  std::vector<int> m_vert;    // working vertex of each corner
  std::vector<int> m_opp;     // paired half-edge, -1 on a boundary
  std::vector<int> m_origin;  // input vertex of each working vertex

  std::vector<int> m_componentStart;      // triangles of component k: m_componentTriangles[start[k], start[k+1])
  std::vector<int> m_componentTriangles;  // grouped by component
  std::vector<int> m_boundaryOut;         // per vertex: its outgoing boundary half-edge, or -1
  std::vector<int> m_vertexStart;         // corners of vertex v: m_vertexCorners[start[v], start[v+1])
  std::vector<int> m_vertexCorners;
  std::vector<int> m_stamp;  // per vertex scratch marks, compared against m_stampValue
  int m_stampValue = 0;

  // Scratch of the cut graph search, sized once and reset per component after use.
  std::vector<int> m_loopOf, m_distance, m_parentEdge, m_degree, m_unionParent;
  std::vector<char> m_inCut;
};

bool Encoder::Run(const std::vector<WelmMeshFace>& faces, std::vector<int>* vertexOrder, std::vector<uint8_t>* bits) {
  if (!Load(faces)) return false;
  PairHalfEdges();
  SplitFans();
  FindComponents();
  BuildBoundaryLinks();
  const int components = static_cast<int>(m_componentStart.size()) - 1;
  for (int k = 0; k < components; ++k) CutToDisc(k);
  SplitFans();
  BuildBoundaryLinks();

  std::vector<EEdgeCode> codes;
  codes.reserve(static_cast<size_t>(m_corners / 3) + static_cast<size_t>(components) + 1);
  for (int k = 0; k < components; ++k) {
    if (!Traverse(k, vertexOrder, &codes)) return false;
    codes.push_back(End);
  }
  // A lone End after the last submesh's End ends the stream (an empty mesh is End, End).
  if (components == 0) codes.push_back(End);
  codes.push_back(End);
  BitWriter writer(bits);
  for (const EEdgeCode code : codes) writer.Put(code);
  return true;
}

bool Encoder::Load(const std::vector<WelmMeshFace>& faces) {
  constexpr uint32_t kMaxIndex = static_cast<uint32_t>(std::numeric_limits<int32_t>::max());
  if (faces.size() > static_cast<size_t>(kMaxIndex / 4)) return false;
  m_corners = static_cast<int>(faces.size() * 3);
  uint32_t maxIndex = 0;
  for (const WelmMeshFace& f : faces) {
    for (const uint32_t v : f.v) {
      if (v > kMaxIndex) return false;
      maxIndex = std::max(maxIndex, v);
    }
  }

  // Working vertices start as the distinct input vertices, numbered densely.
  m_vert.resize(static_cast<size_t>(m_corners));
  m_origin.clear();
  if (static_cast<size_t>(maxIndex) <= 4 * static_cast<size_t>(m_corners) + 1024) {
    std::vector<int> dense(static_cast<size_t>(maxIndex) + 1, -1);
    for (int c = 0; c < m_corners; ++c) {
      const uint32_t v = faces[static_cast<size_t>(c / 3)].v[c % 3];
      if (dense[v] < 0) dense[v] = NewVertex(static_cast<int>(v));
      m_vert[static_cast<size_t>(c)] = dense[v];
    }
  } else {  // sparse indices: rank them instead
    std::vector<uint32_t> sorted;
    sorted.reserve(static_cast<size_t>(m_corners));
    for (const WelmMeshFace& f : faces) sorted.insert(sorted.end(), f.v, f.v + 3);
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    for (const uint32_t v : sorted) NewVertex(static_cast<int>(v));
    for (int c = 0; c < m_corners; ++c) {
      const uint32_t v = faces[static_cast<size_t>(c / 3)].v[c % 3];
      m_vert[static_cast<size_t>(c)] =
          static_cast<int>(std::lower_bound(sorted.begin(), sorted.end(), v) - sorted.begin());
    }
  }

  // A corner repeating a vertex of its triangle stands for a vertex of its own.
  for (int c = 0; c < m_corners; c += 3) {
    const int a = m_vert[c], b = m_vert[c + 1], d = m_vert[c + 2];
    if (b == a) m_vert[c + 1] = NewVertex(m_origin[b]);
    if (d == a || d == b) m_vert[c + 2] = NewVertex(m_origin[d]);
  }
  return m_origin.size() <= kMaxIndex / 2;
}

void Encoder::PairHalfEdges() {
  // Bucket the half-edges by their smaller vertex, then pair u->v with v->u within a bucket.
  const size_t vertices = m_origin.size();
  std::vector<int> start(vertices + 1, 0);
  auto low = [&](int h) { return std::min(m_vert[h], m_vert[Next(h)]); };
  for (int h = 0; h < m_corners; ++h) ++start[static_cast<size_t>(low(h)) + 1];
  for (size_t v = 0; v < vertices; ++v) start[v + 1] += start[v];
  std::vector<int> bucket(static_cast<size_t>(m_corners));
  {
    std::vector<int> fill(start.begin(), start.end() - 1);
    for (int h = 0; h < m_corners; ++h) bucket[static_cast<size_t>(fill[static_cast<size_t>(low(h))]++)] = h;
  }
  m_opp.assign(static_cast<size_t>(m_corners), -1);
  for (size_t v = 0; v < vertices; ++v) {
    const auto first = bucket.begin() + start[v], last = bucket.begin() + start[v + 1];
    if (last - first < 2) continue;
    // Order by the other vertex, those leaving v first; then pair the i-th leaving with the i-th arriving.
    auto key = [&](int h) {
      const int a = m_vert[h], b = m_vert[Next(h)];
      return std::make_pair(std::max(a, b), a > b);
    };
    std::sort(first, last, [&](int x, int y) { return key(x) < key(y); });
    for (auto run = first; run != last;) {
      const int other = key(*run).first;
      auto arriving = run;
      while (arriving != last && key(*arriving) == std::make_pair(other, false)) ++arriving;
      auto end = arriving;
      while (end != last && key(*end).first == other) ++end;
      for (auto out = run, in = arriving; out != arriving && in != end; ++out, ++in) {
        m_opp[*out] = *in;
        m_opp[*in] = *out;
      }
      run = end;
    }
  }
}

void Encoder::SplitFans() {
  std::vector<int> fanVertex(static_cast<size_t>(m_corners), -1);
  std::vector<char> claimed(m_origin.size(), 0);
  for (int c = 0; c < m_corners; ++c) {
    if (fanVertex[c] >= 0) continue;
    int first = c;  // back up to the start of the fan (a closed fan starts anywhere)
    for (int p = RotatePrev(first); p >= 0 && p != c; p = RotatePrev(first)) first = p;
    const int old = m_vert[c];
    int id = old;
    if (claimed[old]) {
      id = NewVertex(m_origin[old]);
    } else {
      claimed[old] = 1;
    }
    int x = first;
    do {
      fanVertex[x] = id;
      x = RotateNext(x);
    } while (x >= 0 && x != first);
  }
  m_vert.swap(fanVertex);
}

void Encoder::FindComponents() {
  const int triangles = m_corners / 3;
  std::vector<int> component(static_cast<size_t>(triangles), -1);
  m_componentStart.assign(1, 0);
  m_componentTriangles.clear();
  m_componentTriangles.reserve(static_cast<size_t>(triangles));
  for (int seed = 0; seed < triangles; ++seed) {
    if (component[seed] >= 0) continue;
    const int k = static_cast<int>(m_componentStart.size()) - 1;
    size_t head = m_componentTriangles.size();
    component[seed] = k;
    m_componentTriangles.push_back(seed);
    while (head < m_componentTriangles.size()) {
      const int t = m_componentTriangles[head++];
      for (int c = 3 * t; c < 3 * t + 3; ++c) {
        const int o = m_opp[c];
        if (o >= 0 && component[o / 3] < 0) {
          component[o / 3] = k;
          m_componentTriangles.push_back(o / 3);
        }
      }
    }
    m_componentStart.push_back(static_cast<int>(m_componentTriangles.size()));
  }
}

void Encoder::BuildBoundaryLinks() {
  // After fan splitting, a boundary vertex has exactly one outgoing boundary half-edge.
  m_boundaryOut.assign(m_origin.size(), -1);
  for (int h = 0; h < m_corners; ++h) {
    if (m_opp[h] < 0) m_boundaryOut[m_vert[h]] = h;
  }
  m_stamp.resize(m_origin.size(), 0);
}

void Encoder::BuildVertexCorners() {
  const size_t vertices = m_origin.size();
  m_vertexStart.assign(vertices + 1, 0);
  for (int c = 0; c < m_corners; ++c) ++m_vertexStart[static_cast<size_t>(m_vert[c]) + 1];
  for (size_t v = 0; v < vertices; ++v) m_vertexStart[v + 1] += m_vertexStart[v];
  m_vertexCorners.resize(static_cast<size_t>(m_corners));
  std::vector<int> fill(m_vertexStart.begin(), m_vertexStart.end() - 1);
  for (int c = 0; c < m_corners; ++c) m_vertexCorners[static_cast<size_t>(fill[m_vert[c]]++)] = c;
}

void Encoder::CutToDisc(int component) {
  // Euler characteristic and boundary loops decide what the component is.
  ++m_stampValue;
  int64_t vertices = 0, halfEdges = 0, boundaryHalfEdges = 0;
  ForEachCorner(component, [&](int c) {
    if (m_stamp[m_vert[c]] != m_stampValue) {
      m_stamp[m_vert[c]] = m_stampValue;
      ++vertices;
    }
    ++halfEdges;
    if (m_opp[c] < 0) ++boundaryHalfEdges;
  });
  const int64_t triangles = halfEdges / 3;
  const int64_t edges = (halfEdges - boundaryHalfEdges) / 2 + boundaryHalfEdges;
  int boundaryLoops = 0;
  ++m_stampValue;  // marks boundary vertices already walked
  ForEachCorner(component, [&](int h) {
    if (m_opp[h] >= 0 || m_stamp[m_vert[h]] == m_stampValue) return;
    ++boundaryLoops;
    for (int x = h; m_stamp[m_vert[x]] != m_stampValue; x = m_boundaryOut[m_vert[Next(x)]]) {
      m_stamp[m_vert[x]] = m_stampValue;
    }
  });
  const int64_t euler = vertices - edges + triangles;
  const int64_t doubledGenus = 2 - boundaryLoops - euler;
  if (doubledGenus == 0 && boundaryLoops == 1) return;  // a disc
  if (doubledGenus == 0 && boundaryLoops == 0) {        // a sphere: open one edge
    Cut(3 * m_componentTriangles[m_componentStart[component]]);
    return;
  }
  if (m_vertexStart.empty()) {
    BuildVertexCorners();
    m_loopOf.assign(m_origin.size(), -1);
    m_distance.assign(m_origin.size(), -1);
    m_parentEdge.assign(m_origin.size(), -1);
    m_degree.assign(m_origin.size(), 0);
    m_unionParent.resize(static_cast<size_t>(m_corners / 3));
    m_inCut.assign(static_cast<size_t>(m_corners), 0);
  }
  CutAlongTreeComplement(component);
  // Leave the scratch as it was found, touching only this component.
  ForEachCorner(component, [&](int c) {
    const int v = m_vert[c];
    m_loopOf[v] = m_distance[v] = m_parentEdge[v] = -1;
    m_degree[v] = 0;
    m_inCut[c] = 0;
  });
}

void Encoder::CutAlongTreeComplement(int component) {
  std::vector<int>& loopOf = m_loopOf;
  std::vector<int>& distance = m_distance;
  std::vector<int>& parentEdge = m_parentEdge;  // canonical half-edge to the parent
  std::vector<int>& degree = m_degree;
  std::vector<int>& parent = m_unionParent;
  std::vector<char>& inCut = m_inCut;  // by canonical half-edge
  // Boundary loops: number them and find the longest, which the breadth-first search starts from.
  std::vector<int> loopFirst;  // a half-edge of each loop
  int longest = -1, longestLength = 0;
  ForEachCorner(component, [&](int h) {
    if (m_opp[h] >= 0 || loopOf[m_vert[h]] >= 0) return;
    const int id = static_cast<int>(loopFirst.size());
    loopFirst.push_back(h);
    int length = 0;
    for (int x = h; loopOf[m_vert[x]] < 0; x = m_boundaryOut[m_vert[Next(x)]], ++length) loopOf[m_vert[x]] = id;
    if (length > longestLength) {
      longest = id;
      longestLength = length;
    }
  });

  // Breadth-first distances from the longest boundary (or from one vertex of a closed component).
  // Entering any other boundary loop reaches all of it at once: a hole costs nothing to cross, since
  // it is cut anyway.
  std::vector<char> loopEntered(loopFirst.size(), 0);
  std::vector<int> queue;
  auto enterLoop = [&](int loop, int dist) {
    loopEntered[loop] = 1;
    const int h = loopFirst[loop];
    int x = h;
    do {
      const int v = m_vert[x];
      if (distance[v] < 0) {
        distance[v] = dist;
        queue.push_back(v);
      }
      x = m_boundaryOut[m_vert[Next(x)]];
    } while (x != h);
  };
  if (longest >= 0) {
    enterLoop(longest, 0);
  } else {
    const int root = m_vert[3 * m_componentTriangles[m_componentStart[component]]];
    distance[root] = 0;
    queue.push_back(root);
  }
  for (size_t head = 0; head < queue.size(); ++head) {
    const int u = queue[head];
    for (int i = m_vertexStart[u]; i < m_vertexStart[u + 1]; ++i) {
      const int c = m_vertexCorners[i];
      const int hs[2] = {c, Prev(c)};
      const int ns[2] = {m_vert[Next(c)], m_vert[Prev(c)]};
      for (int j = 0; j < 2; ++j) {
        const int w = ns[j];
        if (distance[w] >= 0) continue;
        distance[w] = distance[u] + 1;
        parentEdge[w] = Canonical(hs[j]);
        queue.push_back(w);
        if (loopOf[w] >= 0 && !loopEntered[loopOf[w]]) enterLoop(loopOf[w], distance[w]);
      }
    }
  }

  // A spanning tree of the triangles, keeping the edges whose loops through the search tree are
  // longest; edges of the search tree come last. The edges it does not cross form the cut graph.
  std::vector<int> interior;
  int maxWeight = 0;
  ForEachCorner(component, [&](int h) {
    if (m_opp[h] < 0 || h > m_opp[h]) return;
    interior.push_back(h);
    maxWeight = std::max(maxWeight, distance[m_vert[h]] + distance[m_vert[Next(h)]]);
  });
  auto weight = [&](int h) {
    const int a = m_vert[h], b = m_vert[Next(h)];
    if (parentEdge[a] == h || parentEdge[b] == h) return 0;
    return 1 + distance[a] + distance[b];
  };
  std::vector<int> order(interior.size());
  {
    std::vector<int> count(static_cast<size_t>(maxWeight) + 3, 0);
    for (const int h : interior) ++count[static_cast<size_t>(maxWeight + 1 - weight(h)) + 1];
    for (size_t i = 1; i < count.size(); ++i) count[i] += count[i - 1];
    for (const int h : interior)
      order[static_cast<size_t>(count[static_cast<size_t>(maxWeight + 1 - weight(h))]++)] = h;
  }
  ForEachCorner(component, [&](int c) { parent[c / 3] = c / 3; });
  auto find = [&](int t) {
    while (parent[t] != t) t = parent[t] = parent[parent[t]];
    return t;
  };
  int64_t cutEdges = 0;
  auto addToCut = [&](int h) {
    inCut[h] = 1;
    ++degree[m_vert[h]];
    ++degree[m_vert[Next(h)]];
    ++cutEdges;
  };
  for (const int h : order) {
    const int a = find(h / 3), b = find(m_opp[h] / 3);
    if (a != b) {
      parent[a] = b;
    } else {
      addToCut(h);
    }
  }
  ForEachCorner(component, [&](int h) {
    if (m_opp[h] < 0) addToCut(h);
  });

  // Trim dangling branches: re-joining a cut edge at a vertex of degree one keeps the surface a disc.
  // Boundary vertices never drop to degree one. A closed component keeps its last edge, so that it
  // still has a boundary loop to start from.
  std::vector<int> leaves;
  ++m_stampValue;
  ForEachCorner(component, [&](int c) {
    const int v = m_vert[c];
    if (degree[v] == 1 && m_stamp[v] != m_stampValue) {
      m_stamp[v] = m_stampValue;
      leaves.push_back(v);
    }
  });
  while (!leaves.empty() && cutEdges > 1) {
    const int x = leaves.back();
    leaves.pop_back();
    if (degree[x] != 1) continue;
    for (int i = m_vertexStart[x]; i < m_vertexStart[x + 1]; ++i) {
      const int c = m_vertexCorners[i];
      int h = Canonical(c);
      if (!inCut[h]) h = Canonical(Prev(c));
      if (!inCut[h]) continue;
      inCut[h] = 0;
      --cutEdges;
      --degree[x];
      const int y = m_vert[h] == x ? m_vert[Next(h)] : m_vert[h];
      if (--degree[y] == 1) leaves.push_back(y);
      break;
    }
  }
  for (const int h : interior) {
    if (inCut[h]) Cut(h);
  }
}

// Replays the decoder over one component, which is now a disc with a single boundary loop.
bool Encoder::Traverse(int component, std::vector<int>* vertexOrder, std::vector<EEdgeCode>* codes) {
  // The initial loop: the boundary half-edges in order. Node k holds the k-th boundary vertex; the
  // gate edge is the half-edge from the last node back to node 0.
  int start = -1;
  int64_t boundaryHalfEdges = 0;
  ForEachCorner(component, [&](int h) {
    if (m_opp[h] >= 0) return;
    ++boundaryHalfEdges;
    if (start < 0) start = h;
  });
  if (start < 0) return false;

  std::vector<int> nodeVertex, nodeNext, nodePrev, nodeEdge;  // nodeEdge: undecoded half-edge to the next node
  auto newNode = [&](int v) {
    nodeVertex.push_back(v);
    nodeNext.push_back(-1);
    nodePrev.push_back(-1);
    nodeEdge.push_back(-1);
    return static_cast<int>(nodeVertex.size()) - 1;
  };
  ++m_stampValue;  // marks the vertices the decoder has met
  const int visited = m_stampValue;
  int h = start;
  do {
    const int n = newNode(m_vert[h]);
    nodeEdge[n] = h;
    if (m_stamp[m_vert[h]] == visited) return false;  // not a single simple loop
    m_stamp[m_vert[h]] = visited;
    vertexOrder->push_back(m_origin[m_vert[h]]);
    h = m_boundaryOut[m_vert[Next(h)]];
  } while (h != start && h >= 0);
  const int length = static_cast<int>(nodeVertex.size());
  if (h != start || length != boundaryHalfEdges) return false;
  for (int k = 0; k < length; ++k) {
    nodeNext[k] = k + 1 == length ? 0 : k + 1;
    nodePrev[k] = k == 0 ? length - 1 : k - 1;
  }

  std::vector<std::pair<int, int>> stack{{0, length}};  // pending loops: gate node, length
  int g = 0;
  int64_t triangles = 0;
  const int64_t componentTriangles = m_componentStart[component + 1] - m_componentStart[component];
  while (g >= 0) {
    const int before = nodePrev[g];
    const int hg = nodeEdge[before];  // the triangle's half-edge before -> g
    const int hn = Next(hg);          // g -> w
    const int hp = Prev(hg);          // w -> before
    const int w = m_vert[hp];
    if (++triangles > componentTriangles) return false;
    int& loopLength = stack.back().second;
    if (m_stamp[w] != visited) {  // C: a new vertex
      if (m_opp[hp] < 0 || m_opp[hn] < 0) return false;
      codes->push_back(C);
      m_stamp[w] = visited;
      vertexOrder->push_back(m_origin[w]);
      const int n = newNode(w);
      nodeNext[n] = g;
      nodePrev[n] = before;
      nodeNext[before] = n;
      nodePrev[g] = n;
      nodeEdge[before] = m_opp[hp];
      nodeEdge[n] = m_opp[hn];
      ++loopLength;
      continue;
    }
    const bool closesRight = nodeEdge[g] == hn;                // g -> w is the loop's next edge
    const bool closesLeft = nodeEdge[nodePrev[before]] == hp;  // w -> before is the loop's previous edge
    if (closesRight && closesLeft) {
      codes->push_back(E);
      stack.pop_back();
      g = stack.empty() ? -1 : stack.back().first;
    } else if (closesRight) {
      if (m_opp[hp] < 0) return false;
      codes->push_back(R);
      const int after = nodeNext[g];
      nodeNext[before] = after;
      nodePrev[after] = before;
      nodeEdge[before] = m_opp[hp];
      g = after;
      --loopLength;
    } else if (closesLeft) {
      if (m_opp[hn] < 0) return false;
      codes->push_back(L);
      const int twoBefore = nodePrev[before];
      nodeNext[twoBefore] = g;
      nodePrev[g] = twoBefore;
      nodeEdge[twoBefore] = m_opp[hn];
      --loopLength;
    } else {
      // S: w lies further along the loop. Search both ways at once; the decoder gets there in
      // (steps) forward moves, where loop (g ... t) closes first.
      if (m_opp[hp] < 0 || m_opp[hn] < 0) return false;
      int forward = g, backward = g, steps = -1, t = -1;
      for (int k = 1; k < loopLength; ++k) {
        forward = nodeNext[forward];
        backward = nodePrev[backward];
        if (nodeVertex[forward] == w) {
          steps = k;
          t = forward;
          break;
        }
        if (nodeVertex[backward] == w) {
          steps = loopLength - k;
          t = backward;
          break;
        }
      }
      if (t < 0 || steps > loopLength - 2) return false;  // not on this loop: the surface is no disc
      codes->push_back(S);
      const int afterTarget = nodeNext[t];
      const int m = newNode(w);
      nodeNext[before] = m;
      nodePrev[m] = before;
      nodeNext[m] = afterTarget;
      nodePrev[afterTarget] = m;
      nodeEdge[m] = nodeEdge[t];
      nodeEdge[before] = m_opp[hp];
      nodeNext[t] = g;
      nodePrev[g] = t;
      nodeEdge[t] = m_opp[hn];
      const int remaining = loopLength - steps;
      stack.back() = {m, remaining};
      stack.emplace_back(g, steps + 1);
    }
  }
  // Every triangle of the component must have been taken exactly once.
  return triangles == componentTriangles;
}

}  // namespace

bool CEdgeBreaker::Compress(const std::vector<WelmMeshFace>& faces, std::vector<int>* vertexOrder,
                            std::vector<uint8_t>* bits) {
  if (!vertexOrder || !bits) return false;
  vertexOrder->clear();
  bits->clear();
  Encoder encoder;
  if (!encoder.Run(faces, vertexOrder, bits)) {
    vertexOrder->clear();
    bits->clear();
    return false;
  }
  return true;
}

}  // namespace EdgeBreaker
