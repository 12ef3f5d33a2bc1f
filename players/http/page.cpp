// See page.h. Names of films are plain words (main.cpp), so nothing has to be escaped.
#include "page.h"

namespace bridge {

namespace {

constexpr const char *head = R"(<!doctype html>
<html lang="en"><meta charset="utf-8"><meta name="viewport" content="width=device-width,initial-scale=1">
<link rel="icon" href="data:,"><title>c2ms</title>
<style>
:root{color-scheme:light dark;--line:#8886;--bar:#2a7}
body{font:16px/1.5 system-ui,sans-serif;margin:0 auto;padding:1rem;max-width:60rem}
h1{font-size:1.2rem;margin:0 0 .5rem}
video{width:100%;background:#000;aspect-ratio:16/9;border-radius:.4rem}
nav{display:flex;flex-wrap:wrap;gap:.5rem;margin:.75rem 0}
button{font:inherit;padding:.4rem .8rem;border:1px solid var(--line);border-radius:.4rem;background:none;color:inherit;cursor:pointer}
button[aria-pressed=true]{background:var(--bar);color:#fff}
button:focus-visible{outline:3px solid var(--bar);outline-offset:2px}
table{border-collapse:collapse;width:100%;font-variant-numeric:tabular-nums}
td,th{padding:.25rem .5rem .25rem 0;border-bottom:1px solid var(--line);text-align:left}
td.n,th.n{text-align:right}
.bar{height:.5rem;background:var(--line);border-radius:.25rem;overflow:hidden}.bar i{display:block;height:100%;background:var(--bar)}
.wide{overflow-x:auto}
</style>
<h1>Films</h1><video controls playsinline></video><nav aria-label="Films">)";

constexpr const char *tail = R"(</nav>
<div id="figures" class="wide" aria-live="off"><p>No film is being read.</p></div>
<script>
const video=document.querySelector('video'),buttons=[...document.querySelectorAll('nav button')];
for(const b of buttons)b.onclick=()=>{for(const o of buttons)o.setAttribute('aria-pressed',o===b);video.src='/'+b.textContent;video.play().catch(()=>{})};
if(buttons[0]){buttons[0].setAttribute('aria-pressed',true);video.preload='metadata';video.src='/'+buttons[0].textContent}
const mb=n=>(n/1048576).toFixed(1)+' MiB',rate=n=>(n*8/1000).toFixed(2)+' Mbit/s';
new EventSource('/events').onmessage=e=>{
 const all=JSON.parse(e.data),out=document.getElementById('figures');
 if(!all.length){out.innerHTML='<p>No film is being read.</p>';return}
 out.innerHTML=all.map(f=>`<h2 style="font-size:1rem;margin:.5rem 0">${f.film}</h2>
<table><tr><th>Read up to<td class="n">${mb(f.position)} of ${mb(f.size)}
<tr><th>Buffered ahead<td class="n">${mb(f.ahead)}<tr><th>Arriving<td class="n">${rate(f.speed)}
<tr><th>Waited<td class="n">${Object.entries(f.waits).map(([k,v])=>k+' '+(v/1000).toFixed(1)+' s').join(', ')}</table>
<table><tr><th>Server<th class="n">Speed<th>Share of the bytes</tr>${f.servers.map(s=>`<tr><td>${s.address}<td class="n">${rate(s.speed)}<td><div class="bar" title="${(s.share*100).toFixed(0)} %"><i style="width:${s.share*100}%"></i></div>`).join('')}</table>`).join('')};
</script></html>
)";

}  // namespace

std::string page(const std::vector<film> &films) {
  std::string text = head;
  for (const film &one : films)
    text += "<button type=\"button\" aria-pressed=\"false\">" + one.name + "</button>";
  return text + tail;
}

}  // namespace bridge
