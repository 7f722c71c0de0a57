// Planar YUV 4:2:0 (full range) into a target a quarter as wide and 3/2 as
// high: rows 0 to H-1 hold Y, four pixels of a row in r, g, b, a; each row
// below holds a row of U in its left half and the same row of V in its right
// half, four chroma pixels each, chroma taken at every second pixel and row.
// pixel_size is the size of one source pixel.
varying vec2 textureCoordinate;
varying vec2 vertCoordinate;

uniform sampler2D inputImageTexture;
uniform vec2 pixel_size;

vec3 rgbToYuv(vec3 rgb)
{
    float y = dot(rgb, vec3(0.299, 0.587, 0.114));
    float u = dot(rgb, vec3(-0.169, -0.331, 0.5)) + 0.5;
    float v = dot(rgb, vec3(0.5, -0.419, -0.081)) + 0.5;
    return vec3(y, u, v);
}

vec3 yuvAt(float x, float y)
{
    return rgbToYuv(texture2D(inputImageTexture, vec2(x, y)).rgb);
}

void main()
{
    float x = vertCoordinate.x;
    if (vertCoordinate.y < 2.0 / 3.0) {
        float y = vertCoordinate.y * 1.5;
        gl_FragColor = vec4(yuvAt(x - 1.5 * pixel_size.x, y).x, yuvAt(x - 0.5 * pixel_size.x, y).x,
                            yuvAt(x + 0.5 * pixel_size.x, y).x, yuvAt(x + 1.5 * pixel_size.x, y).x);
        return;
    }
    // The first of the two picture rows of this chroma row.
    float y = (vertCoordinate.y - 2.0 / 3.0) * 3.0 - 0.5 * pixel_size.y;
    bool isU = x < 0.5;
    x = (isU ? x : x - 0.5) * 2.0;
    // Chroma pixels sit on every second column.
    vec4 a = vec4(yuvAt(x - 3.5 * pixel_size.x, y).yz, yuvAt(x - 1.5 * pixel_size.x, y).yz);
    vec4 b = vec4(yuvAt(x + 0.5 * pixel_size.x, y).yz, yuvAt(x + 2.5 * pixel_size.x, y).yz);
    gl_FragColor = isU ? vec4(a.x, a.z, b.x, b.z) : vec4(a.y, a.w, b.y, b.w);
}
