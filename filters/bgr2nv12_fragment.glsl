// Packs the picture for a video encoder, by targetT:
// 0 (or any other value) NV12 into a target a quarter as wide and 3/2 as
//   high: rows 0 to H-1 hold Y, four pixels of a row in r, g, b, a; the rows
//   below hold u, v, u, v, each pair from a 2 x 2 block of pixels.
// 1 UYVY into a target half as wide: (u, y1, v, y2) per pair of pixels.
// 2 no packing: a pillar-box with black columns texBorder wide on each side.
// pixel_size is the size of one source pixel, texWidth the target's width in
// pixels. Rows count from the first row in memory, which is where a picture
// uploaded as it is starts and where a read-back starts.
varying vec2 textureCoordinate;
varying vec2 vertCoordinate;

uniform sampler2D inputImageTexture;
uniform vec2 pixel_size;
uniform float texWidth;
uniform int targetT;
uniform float texBorder;

// Studio range: Y from 16/255, u and v about 0.5.
vec3 rgbToYuv(vec3 rgb)
{
    float y = dot(rgb, vec3(0.183, 0.614, 0.062)) + 16.0 / 255.0;
    float u = dot(rgb, vec3(-0.101, -0.339, 0.439)) + 0.5;
    float v = dot(rgb, vec3(0.439, -0.399, -0.040)) + 0.5;
    return vec3(y, u, v);
}

vec3 rgbAt(float x, float y)
{
    return texture2D(inputImageTexture, vec2(x, y)).rgb;
}

// u and v of the 2 x 2 block whose left column is at x and rows at y0, y1.
vec2 blockChroma(float x, float y0, float y1)
{
    float x1 = x + pixel_size.x;
    vec3 rgb = (rgbAt(x, y0) + rgbAt(x1, y0) + rgbAt(x, y1) + rgbAt(x1, y1)) * 0.25;
    return rgbToYuv(rgb).yz;
}

vec4 packNv12()
{
    float x = vertCoordinate.x;
    if (vertCoordinate.y < 2.0 / 3.0) {
        float y = vertCoordinate.y * 1.5;
        return vec4(rgbToYuv(rgbAt(x - 1.5 * pixel_size.x, y)).x,
                    rgbToYuv(rgbAt(x - 0.5 * pixel_size.x, y)).x,
                    rgbToYuv(rgbAt(x + 0.5 * pixel_size.x, y)).x,
                    rgbToYuv(rgbAt(x + 1.5 * pixel_size.x, y)).x);
    }
    // One chroma row per two picture rows.
    float y = (vertCoordinate.y - 2.0 / 3.0) * 3.0;
    float y0 = y - 0.5 * pixel_size.y;
    float y1 = y + 0.5 * pixel_size.y;
    vec2 first = blockChroma(x - 1.5 * pixel_size.x, y0, y1);
    vec2 second = blockChroma(x + 0.5 * pixel_size.x, y0, y1);
    return vec4(first, second);
}

vec4 packUyvy()
{
    float y = textureCoordinate.y;
    vec3 left = rgbAt(vertCoordinate.x - 0.5 * pixel_size.x, y);
    vec3 right = rgbAt(vertCoordinate.x + 0.5 * pixel_size.x, y);
    vec2 uv = rgbToYuv((left + right) * 0.5).yz;
    float y1 = rgbToYuv(left).x;
    float y2 = rgbToYuv(right).x;
    // Meant to tell odd target pixels from even ones; as written it picks
    // the pixels 1 and 2 only.
    float px = floor(vertCoordinate.x * texWidth);
    if (px - floor(px / 2.0) == 1.0)
        return vec4(uv.x, y2, uv.y, y1);
    return vec4(uv.x, y1, uv.y, y2);
}

vec4 pillarBox()
{
    float x = vertCoordinate.x;
    if (x < texBorder || x > 1.0 - texBorder)
        return vec4(0.0, 0.0, 0.0, 1.0);
    return texture2D(inputImageTexture, vec2((x - texBorder) / (1.0 - 2.0 * texBorder), textureCoordinate.y));
}

void main()
{
    if (targetT == 1)
        gl_FragColor = packUyvy();
    else if (targetT == 2)
        gl_FragColor = pillarBox();
    else
        gl_FragColor = packNv12();
}
